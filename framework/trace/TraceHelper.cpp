#include "framework/trace/TraceHelper.h"

namespace Vesk {

void TraceHelper::trace(String const& text, uint32_t line, char const* file) const {
  std::string all = start_;
  all.append(text.view());
  if (handle_->recorded(level_)) TraceText::lineIs(file, line, handle_->name().view(), all);
  if (TraceCapture* capture = TraceCapture::active()) capture->lineIs(std::move(all));
}

}  // namespace Vesk
