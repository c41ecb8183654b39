// SVG rendering of an index: its entries (grey) and the node boxes of every
// level, one colour per level, axis 0 across and axis 1 up (a third axis is
// projected away; a one-axis index gets one horizontal band per level).
#ifndef ZQ_TOOLS_RENDER_H
#define ZQ_TOOLS_RENDER_H

#include <cstdint>
#include <string>

#include "driver/index.h"

namespace zqtool {

struct RenderOptions {
  int width = 1000;              // pixels; the height follows the data's aspect
  uint64_t max_entries = 50000;  // beyond this, every k-th entry is drawn
  bool entries = true;           // draw the entries at all
};

zq::Status render_svg(const zq::Index& index, const RenderOptions& options, std::string* svg);

}  // namespace zqtool

#endif
