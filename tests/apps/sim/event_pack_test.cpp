// Events that are kept: that they come back as they were, and that keeping them takes no memory of its own.
#include <array>
#include <cstdlib>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "sim/event_pack.h"
#include "sim/event_tail.h"
#include "sim/json_reader.h"

using namespace sim;

namespace {

std::size_t allocations = 0;

}  // namespace

void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
    allocations++;
    return std::malloc(size > 0 ? size : 1);
}
void *operator new(std::size_t size) {
    if (void *const out = operator new(size, std::nothrow)) return out;
    throw std::bad_alloc();
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }

TEST(sim_event_pack, an_event_comes_back_as_it_was) {
    const std::string long_text(300, 'x');
    const std::array fields = {Field("a", Bytes{std::string_view("\0\xff", 2)}),
                               Field("b", true),
                               Field("c", -1),
                               Field("d", "words"),
                               Field("e", Bytes{long_text}),
                               Field("f", "")};
    const Event event = {.kind = Kind::frame_sent,
                         .source = Source::tunnel,
                         .id = 4711,
                         .model = "base",
                         .fields = fields,
                         .cause = long_text,
                         .time = std::chrono::nanoseconds(123456789012)};
    EventPacker packer;
    std::string both(packer.pack(event));
    both += packer.pack({.kind = Kind::frame_sent, .source = Source::link});
    std::string_view bytes = both;
    std::vector<Field> area;
    EXPECT_EQ(event_json(packer.unpack(bytes, area)), event_json(event));
    EXPECT_EQ(event_json(packer.unpack(bytes, area)), event_json({.kind = Kind::frame_sent, .source = Source::link}));
    EXPECT_TRUE(bytes.empty());
}

TEST(sim_event_pack, events_of_one_kind_may_have_other_fields_and_types) {
    EventPacker packer;
    std::vector<Field> area;
    for (int round = 0; round < 2; round++) {
        for (const Field &field : {Field("a", 1), Field("b", 1), Field("a", true), Field("a", "text")}) {
            const std::array fields = {field};
            const Event event = {.kind = Kind::frame_sent, .fields = fields};
            std::string_view bytes = packer.pack(event);
            EXPECT_EQ(event_json(packer.unpack(bytes, area)), event_json(event));
        }
    }
}

TEST(sim_event_pack, an_event_of_the_stream_is_packed_once_and_others_each_time) {
    EventPacker packer;
    const std::string first(packer.pack({.id = 1, .serial = 1}));
    EXPECT_EQ(packer.pack({.id = 2, .serial = 1}), first);
    EXPECT_NE(packer.pack({.id = 2, .serial = 2}), first);
    const std::string alone(packer.pack({.id = 3}));
    EXPECT_NE(packer.pack({.id = 4}), alone);
}

TEST(sim_event_pack, texts_of_every_size_come_back_behind_events_that_are_kept) {
    EventPacker packer;
    std::string expected;
    for (const std::size_t size : {0, 1, 254, 255, 256, 70000, 3}) {
        const std::string text(size, 'x');
        const std::array fields = {Field("before", Bytes{text}), Field("length", size), Field("behind", text)};
        const Event event = {.kind = Kind::raw_sent, .model = text, .fields = fields, .cause = text};
        expected += event_json(event);
        packer.pack(event);
        packer.keep();
    }
    std::string_view kept = packer.kept();
    std::vector<Field> area;
    std::string got;
    while (!kept.empty()) got += event_json(packer.unpack(kept, area));
    EXPECT_EQ(got, expected);
    packer.drop_kept();
    EXPECT_TRUE(packer.kept().empty());
}

TEST(sim_event_pack, numbers_of_every_size_come_back) {
    EventPacker packer;
    std::vector<Field> area;
    for (const std::int64_t number : {std::int64_t{0}, std::int64_t{254}, std::int64_t{255}, std::int64_t{65536},
                                      std::int64_t{-1}, INT64_MAX, INT64_MIN}) {
        const std::array fields = {Field("number", number)};
        std::string_view bytes = packer.pack({.id = -1, .fields = fields});
        const Event event = packer.unpack(bytes, area);
        EXPECT_EQ(event.number_of("number"), number);
        EXPECT_EQ(event.id, -1);
    }
}

TEST(sim_event_pack, an_event_that_is_cut_has_a_size_beyond_its_bytes) {
    EventPacker packer;
    const std::array fields = {Field("payload", Bytes{"a message"})};
    const std::string packed(packer.pack({.kind = Kind::message_sent, .fields = fields}));
    EXPECT_EQ(EventPacker::size_of(packed), packed.size());
    EXPECT_EQ(EventPacker::size_of(packed + "and more"), packed.size());
    for (std::size_t size = 0; size < packed.size(); size++) {
        EXPECT_GT(EventPacker::size_of(std::string_view(packed).substr(0, size)), size);
    }
}

TEST(sim_event_pack, packing_takes_no_memory_once_its_like_was_packed) {
    EventPacker packer;
    const auto pack = [&](int number) {
        const std::array fields = {Field("opcode", "text"), Field("length", 9), Field("payload", Bytes{"a message"})};
        return packer.pack({.kind = Kind::message_received, .source = Source::tunnel, .id = number, .fields = fields})
            .size();
    };
    const std::size_t size = pack(0);
    const std::size_t before = allocations;
    std::size_t sum = 0;
    for (int i = 1; i <= 1000; i++) sum += pack(i);
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(sum, 1000 * size);
}

TEST(sim_event_tail, the_newest_events_stay) {
    constexpr std::uint64_t kStay = 1000;
    EventTail tail(kStay);
    for (std::uint64_t number = 0; number < 5000; number++) {
        tail.push(std::to_string(number) + ";");
        ASSERT_EQ(tail.count(), number + 1);
        const std::uint64_t oldest = number < kStay ? 0 : number - kStay + 1;
        for (const std::uint64_t one : {oldest, (oldest + number) / 2, number}) {
            ASSERT_TRUE(tail.at(one).starts_with(std::to_string(one) + ";")) << one << " of " << number;
        }
    }
}

TEST(sim_event_tail, keeping_an_event_takes_no_memory_once_as_many_were_kept) {
    EventTail tail(1000);
    const auto push_many = [&] {
        for (int i = 0; i < 3000; i++) tail.push("an event");
    };
    push_many();
    const std::size_t before = allocations;
    push_many();
    EXPECT_EQ(allocations, before);
}
