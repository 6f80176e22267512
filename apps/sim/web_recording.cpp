#include "web_recording.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <unistd.h>

#include "text.h"

namespace sim {

constexpr std::size_t kUnwrittenMax = 64 << 10;

WebRecording::WebRecording(EventStream &events, const TunnelData &tunnel_data, Cut cut, std::size_t size_max)
    : cut_(std::move(cut)), size_max_(size_max), file_(std::tmpfile()) {
    if (!file_) throw std::runtime_error(cat("no temporary file for the page's recording: ", std::strerror(errno)));
    recorder_.emplace(events, tunnel_data, Recorder::With::replaced_secrets,
                      [this](std::string_view line) { write_line(line); });
}

std::size_t WebRecording::size() {
    write_out();
    return written_;
}

std::string WebRecording::read(std::size_t begin, std::size_t count) const {
    std::string out(count, '\0');
    const ssize_t got = ::pread(::fileno(file_.get()), out.data(), count, static_cast<off_t>(begin));
    out.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return out;
}

void WebRecording::write_line(std::string_view line) {
    if (is_cut_) return;
    if (written_ + unwritten_.size() + line.size() + 1 > size_max_) {
        return cut(cat("the page's recording is cut: more than ", size_max_, " bytes are not kept"));
    }
    unwritten_ += line;
    unwritten_ += '\n';
    if (unwritten_.size() >= kUnwrittenMax) write_out();
}

void WebRecording::write_out() {
    if (unwritten_.empty()) return;
    const ssize_t wrote =
        ::pwrite(::fileno(file_.get()), unwritten_.data(), unwritten_.size(), static_cast<off_t>(written_));
    const int error = wrote < 0 ? errno : ENOSPC;  // what a short write to a file means
    const bool whole = wrote == static_cast<ssize_t>(unwritten_.size());
    if (wrote > 0) written_ += static_cast<std::size_t>(wrote);
    unwritten_.clear();
    if (!whole) cut(cat("the page's recording is cut: ", std::strerror(error)));
}

void WebRecording::cut(const std::string &why) {
    if (is_cut_) return;
    is_cut_ = true;
    cut_(why);
}

}  // namespace sim
