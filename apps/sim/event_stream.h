// The stream of events. Whatever happens is emitted once, and every reader that wants its kind is called with it, in
// the order of their subscriptions, before emit returns:
//
//     Subscription mine = events.subscribe(kinds_up_to(Detail::frames), [](const Event &event) {
//         if (event.kind == Kind::frame_received) keep(event.id, event.bytes_of("payload"));
//     });
//
// A reader is called as long as its Subscription lives. It must not wait or throw, and copies what it keeps. It may
// emit events of its own, and must not subscribe or end a subscription inside its call: it posts that to the io
// context. The stream outlives its subscriptions.
//
// An event that nobody wants costs one test. Where its fields take work, the emitter asks wants() first.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "event.h"

namespace sim {

class EventStream {
  public:
    using Reader = std::function<void(const Event &)>;

    // Subscription ends its reader's calls when it is destroyed. It can be moved, not copied.
    class Subscription {
      public:
        Subscription() = default;

      private:
        friend class EventStream;
        struct End {
            EventStream *stream;
            void operator()(Reader *reader) const {
                stream->remove(reader);
                delete reader;
            }
        };
        Subscription(EventStream &stream, Reader *reader) : reader_(reader, End{&stream}) {}

        std::unique_ptr<Reader, End> reader_;
    };

    // As long as a Moment lives, events have the time of the first of them: what one read brings happens at once, and
    // to read the clock takes longer than to count a frame. Nothing waits in a moment.
    class Moment {
      public:
        explicit Moment(const EventStream &stream) : stream_(stream), inner_(stream.in_moment_) {
            stream_.in_moment_ = true;
        }
        ~Moment() {
            if (!inner_) stream_.in_moment_ = stream_.has_time_ = false;
        }
        Moment(const Moment &) = delete;
        Moment &operator=(const Moment &) = delete;

      private:
        const EventStream &stream_;
        bool inner_;  // it is a part of another one
    };

    EventStream() = default;
    EventStream(const EventStream &) = delete;
    EventStream &operator=(const EventStream &) = delete;

    [[nodiscard]] Subscription subscribe(const KindSet &kinds, Reader reader);

    [[nodiscard]] bool wants(Kind kind) const { return !readers_of(kind).empty(); }

    // emit sets the event's time and serial, and calls the readers.
    void emit(Event event) const {
        if (wants(event.kind)) deliver(event);
    }

    // now is the time since the stream began, as events have it; began is when that was.
    [[nodiscard]] std::chrono::steady_clock::duration now() const { return std::chrono::steady_clock::now() - start_; }
    [[nodiscard]] std::chrono::system_clock::time_point began() const { return began_; }

  private:
    using Readers = std::vector<Reader *>;

    [[nodiscard]] const Readers &readers_of(Kind kind) const { return readers_[static_cast<std::size_t>(kind)]; }
    void deliver(Event &event) const;
    void remove(Reader *reader);

    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::system_clock::time_point began_ = std::chrono::system_clock::now();
    std::array<Readers, kKinds> readers_;  // of each kind
    mutable std::uint64_t count_ = 0;      // of the events that were wanted
    mutable std::chrono::steady_clock::duration time_{};
    mutable bool in_moment_ = false;
    mutable bool has_time_ = false;  // the moment's
};

using Subscription = EventStream::Subscription;

// seconds_of is a time of the stream in seconds.
inline double seconds_of(std::chrono::steady_clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace sim
