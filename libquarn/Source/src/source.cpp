#include "source.h"

#include "logger.h"

namespace quarn::lidar {

Source::~Source() = default;

void Source::Close() {
  LOG_PROGRESS("Source::Close()");
}

}  // namespace quarn::lidar
