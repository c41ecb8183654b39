// The line reader: the input is read in large blocks; gzip input is inflated
// block by block, so memory stays a few megabytes whatever the file's size.
#include "tools/line_reader.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace zqtool {

namespace {

// Large enough that reads are few, small enough that opening is cheap.
constexpr size_t kBlock = 1 << 16;

}  // namespace

LineReader::~LineReader() {
  if (inflating_) inflateEnd(&zs_);
  if (file_ != nullptr && file_ != stdin) std::fclose(file_);
}

zq::Status LineReader::open(const std::string& path, const std::string& name) {
  name_ = name;
  file_ = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (file_ == nullptr)
    return zq::Status::io(fmt::format("cannot open '{}': {}", path, std::strerror(errno)));
  zq::Status status;
  if (!read_raw(&status) && !status) return status;
  gzip_ = zs_.avail_in >= 2 && raw_[0] == 0x1f && raw_[1] == 0x8b;
  if (!gzip_) {
    text_.assign(reinterpret_cast<const char*>(raw_.data()), zs_.avail_in);
    zs_.avail_in = 0;
    return zq::Status::ok();
  }
  // 16 + 15: a gzip wrapper, the largest window.
  if (inflateInit2(&zs_, 16 + 15) != Z_OK)
    return zq::Status::io(fmt::format("{}: cannot start reading gzip data", name_));
  inflating_ = true;
  in_member_ = true;
  return zq::Status::ok();
}

bool LineReader::read_raw(zq::Status* status) {
  raw_.resize(kBlock);
  const size_t n = std::fread(raw_.data(), 1, raw_.size(), file_);
  if (n == 0) {
    raw_end_ = true;
    if (std::ferror(file_))
      *status = zq::Status::io(fmt::format("{}: read error: {}", name_, std::strerror(errno)));
  }
  zs_.next_in = raw_.data();
  zs_.avail_in = static_cast<uInt>(n);
  return n > 0;
}

bool LineReader::fill(zq::Status* status) {
  if (!gzip_) {
    if (raw_end_) return false;
    const size_t old = text_.size();
    text_.resize(old + kBlock);
    const size_t n = std::fread(text_.data() + old, 1, kBlock, file_);
    text_.resize(old + n);
    if (n == 0) {
      raw_end_ = true;
      if (std::ferror(file_))
        *status = zq::Status::io(fmt::format("{}: read error: {}", name_, std::strerror(errno)));
    }
    return n > 0;
  }
  const size_t old = text_.size();
  while (text_.size() == old) {
    if (zs_.avail_in == 0 && (raw_end_ || !read_raw(status))) {
      // Input that ends inside a member stopped short of the member's end.
      if (*status && in_member_)
        *status = zq::Status::invalid(
            fmt::format("{}: the gzip data ends early (the file is truncated)", name_));
      return false;
    }
    if (!in_member_) {
      // Bytes after a finished member start the next one.
      inflateReset(&zs_);
      in_member_ = true;
    }
    text_.resize(old + kBlock);
    zs_.next_out = reinterpret_cast<Bytef*>(text_.data() + old);
    zs_.avail_out = static_cast<uInt>(kBlock);
    const int rc = inflate(&zs_, Z_NO_FLUSH);
    text_.resize(old + kBlock - zs_.avail_out);
    if (rc == Z_STREAM_END) {
      in_member_ = false;
    } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
      *status = zq::Status::invalid(fmt::format("{}: gzip data is damaged: {}", name_,
                                                zs_.msg != nullptr ? zs_.msg : "inflate failed"));
      return false;
    }
  }
  return true;
}

bool LineReader::next(std::string_view* line, zq::Status* status) {
  while (true) {
    const size_t nl = text_.find('\n', pos_);
    if (nl != std::string::npos) {
      *line = std::string_view(text_).substr(pos_, nl - pos_);
      pos_ = nl + 1;
      return true;
    }
    text_.erase(0, pos_);
    pos_ = 0;
    if (!fill(status)) break;
  }
  if (!*status || pos_ == text_.size()) return false;
  *line = std::string_view(text_).substr(pos_);
  pos_ = text_.size();
  return true;
}

}  // namespace zqtool
