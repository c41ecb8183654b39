// The progress bar: "stage [#####.....]  45%  450000/1000000", redrawn with a
// carriage return, throttled so a fast loop does not flood the terminal.
#include "tools/progress.h"

#include <unistd.h>

#include <cstdio>

namespace zqtool {

bool progress_wanted() {
  return isatty(STDERR_FILENO) != 0;
}

ProgressBar::~ProgressBar() {
  finish();
}

void ProgressBar::update(std::string_view stage, uint64_t done, uint64_t total) {
  const auto now = std::chrono::steady_clock::now();
  if (stage != stage_) {
    finish();
    stage_ = stage;
  } else if (now - last_ < std::chrono::milliseconds(100) && (total == 0 || done < total)) {
    return;
  }
  last_ = now;
  draw(done, total);
}

void ProgressBar::draw(uint64_t done, uint64_t total) {
  constexpr int kWidth = 30;
  if (total == 0) {
    std::fprintf(stderr, "\r%-10s %llu", stage_.c_str(), static_cast<unsigned long long>(done));
  } else {
    const double frac =
        done >= total ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
    const int filled = static_cast<int>(frac * kWidth);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(kWidth - filled), '.');
    std::fprintf(stderr, "\r%-10s [%s] %3d%%  %llu/%llu", stage_.c_str(), bar.c_str(),
                 static_cast<int>(frac * 100), static_cast<unsigned long long>(done),
                 static_cast<unsigned long long>(total));
  }
  std::fflush(stderr);
  drawn_ = true;
}

void ProgressBar::finish() {
  if (drawn_) std::fputc('\n', stderr);
  drawn_ = false;
}

}  // namespace zqtool
