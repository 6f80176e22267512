#include "event_stream.h"

namespace sim {

Subscription EventStream::subscribe(const KindSet &kinds, std::function<void(const Event &)> call) {
    readers_.push_back(std::make_unique<Reader>(Reader{kinds, std::move(call)}));
    wanted_.add(kinds);
    return {*this, readers_.back().get()};
}

void EventStream::remove(Reader *gone) {
    std::erase_if(readers_, [gone](const auto &reader) { return reader.get() == gone; });
    wanted_ = {};
    for (const auto &reader : readers_) wanted_.add(reader->kinds);
}

void EventStream::deliver(Event &event) const {
    if (!has_time_) time_ = now();
    has_time_ = in_moment_;
    event.time = time_;
    event.serial = ++count_;
    for (const auto &reader : readers_) {
        if (reader->kinds.has(event.kind)) reader->call(event);
    }
}

}  // namespace sim
