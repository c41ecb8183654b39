// A progress bar on standard error for long work: one line redrawn in place
// at most ten times a second, finished with a newline when the stage changes
// or the bar is destroyed. Only used when standard error is a terminal.
#ifndef ZQ_TOOLS_PROGRESS_H
#define ZQ_TOOLS_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace zqtool {

class ProgressBar {
 public:
  ProgressBar() = default;
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // `total` 0: the amount is unknown, so only the count is shown.
  void update(std::string_view stage, uint64_t done, uint64_t total);
  void finish();

 private:
  void draw(uint64_t done, uint64_t total);
  std::string stage_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_{};
};

// True when progress may be drawn: standard error is a terminal.
bool progress_wanted();

}  // namespace zqtool

#endif
