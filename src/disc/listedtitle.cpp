// The receiver of listed titles.
#include "disc/listedtitle.h"

namespace sonvex {
namespace {
std::function<void(const TListedTitle&)> titleRecorder;
}  // namespace

void SetTitleRecorder(std::function<void(const TListedTitle&)> recorder) {
  titleRecorder = std::move(recorder);
}

void RecordTitle(const TListedTitle& title) {
  if (titleRecorder) titleRecorder(title);
}

}  // namespace sonvex
