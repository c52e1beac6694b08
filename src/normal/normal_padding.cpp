#include "normal/normal_padding.h"

namespace kv {

PaddingSettings padding_settings_of(const NormalBakeSettings& settings) {
  PaddingSettings padding;
  padding.mode = settings.padding;
  padding.width = settings.dilation;
  padding.color.assign(settings.padding_color.begin(), settings.padding_color.end());
  return padding;
}

}  // namespace kv
