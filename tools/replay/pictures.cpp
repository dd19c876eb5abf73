// pictures.cpp - stub, being built.
#include "pictures.h"
namespace kvreplay {
std::string writePng(const std::string&, const uint8_t*, int, int, int) { return "not built"; }
}  // namespace kvreplay
namespace kvreplay {
std::string writePingPictures(const std::string&, const KVaneParams&, const KVaneResult&, int32_t) { return "not built"; }
}  // namespace kvreplay
