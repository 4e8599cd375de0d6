// The ITK-backed volume file readers (NRRD, MetaImage), for builds where ITK's
// headers cannot be compiled (Debian's ITK accepts only GCC; the fuzzers need
// clang). The request reader under fuzzing never loads files, so these are
// never reached there; should they be, they refuse like any unreadable file.
#include "io/input_error.h"
#include "io/volume_readers.h"

namespace zrio {

VolumeFileInfo ReadItkInfo(const std::string& path, const VolumeChoice&) {
    throw InputError(path, "volume files are not readable in this build");
}

VoxelGrid ReadItkGrid(const std::string& path, const VolumeChoice&, VolumeFileInfo&) {
    throw InputError(path, "volume files are not readable in this build");
}

}  // namespace zrio
