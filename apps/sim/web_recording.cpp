#include "web_recording.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include "text.h"

namespace sim {

constexpr std::size_t kUnwrittenMax = 128 << 10;
constexpr std::size_t kPieceSize = 64 << 10;  // of the file, and of lines: one event more, and it is enough

WebRecording::WebRecording(EventStream &events, const TunnelData &tunnel_data, EventPacker &packer, Cut cut,
                           std::size_t size_max)
    : events_(events),
      tunnel_data_(tunnel_data),
      packer_(packer),
      cut_(std::move(cut)),
      size_max_(size_max),
      file_(std::tmpfile()) {
    if (!file_) throw std::runtime_error(cat("no temporary file for the page's recording: ", std::strerror(errno)));
    subscription_ = events.subscribe(kinds_up_to(Detail::bytes), [this](const Event &event) { keep(event); });
}

void WebRecording::keep(const Event &event) {
    if (is_cut_) return;
    if (written_ + packer_.kept().size() + packer_.pack(event).size() > size_max_) {
        return cut(cat("the page's recording is cut: more than ", size_max_, " bytes are not kept"));
    }
    packer_.keep();
    if (packer_.kept().size() >= kUnwrittenMax) write_out();
}

void WebRecording::write_out() {
    const std::string_view bytes = packer_.kept();
    const ssize_t wrote = ::pwrite(::fileno(file_.get()), bytes.data(), bytes.size(), static_cast<off_t>(written_));
    const int error = wrote < 0 ? errno : ENOSPC;  // what a short write to a file means
    if (wrote > 0) written_ += static_cast<std::size_t>(wrote);
    packer_.drop_kept();
    if (wrote != static_cast<ssize_t>(bytes.size())) cut(cat("the page's recording is cut: ", std::strerror(error)));
}

void WebRecording::cut(const std::string &why) {
    if (is_cut_) return;
    is_cut_ = true;
    cut_(why);
}

WebRecording::Lines::Lines(WebRecording &recording)
    : recording_(recording),
      writer_(recording.events_, recording.tunnel_data_, RecordingWriter::With::replaced_secrets,
              [this](std::string_view line) { piece_.append(line) += '\n'; }) {
    recording.write_out();
    end_ = recording.written_;
}

// An event that a full disk has cut is not whole, and is left out.
std::string WebRecording::Lines::next() {
    std::string_view rest = unread_;
    while (piece_.size() < kPieceSize) {
        if (rest.size() < EventPacker::size_of(rest)) {
            unread_.erase(0, unread_.size() - rest.size());
            if (!read_more()) break;
            rest = unread_;
            continue;
        }
        writer_.write(recording_.packer_.unpack(rest, fields_));
    }
    unread_.erase(0, unread_.size() - rest.size());
    return std::exchange(piece_, {});
}

bool WebRecording::Lines::read_more() {
    const std::size_t before = unread_.size();
    const std::size_t wanted = std::min(kPieceSize, end_ - at_);
    unread_.resize(before + wanted);
    const ssize_t got =
        ::pread(::fileno(recording_.file_.get()), unread_.data() + before, wanted, static_cast<off_t>(at_));
    const std::size_t read = got < 0 ? 0 : static_cast<std::size_t>(got);
    unread_.resize(before + read);
    at_ += read;
    return read > 0;
}

}  // namespace sim
