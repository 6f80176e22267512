#include "event_stream.h"

namespace sim {

Subscription EventStream::subscribe(const KindSet &kinds, Reader reader) {
    Subscription out(*this, new Reader(std::move(reader)));
    for (std::size_t i = 0; i < kKinds; i++) {
        if (kinds.has(static_cast<Kind>(i))) readers_[i].push_back(out.reader_.get());
    }
    return out;
}

void EventStream::remove(Reader *gone) {
    for (Readers &readers : readers_) std::erase(readers, gone);
}

void EventStream::deliver(Event &event) const {
    if (!has_time_) time_ = now();
    has_time_ = in_moment_;
    event.time = time_;
    event.serial = ++count_;
    for (const Reader *reader : readers_of(event.kind)) (*reader)(event);
}

}  // namespace sim
