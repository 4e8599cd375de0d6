// The ITK-backed volume file readers, for builds where ITK's headers cannot be
// compiled (Debian's ITK accepts only GCC; the fuzzers need clang). The request
// reader under fuzzing never loads files, so these are never reached there;
// should they be, they refuse like any unreadable file.
#include "io/input_error.h"
#include "io/volume_files.h"

namespace zrio {

VolumeFileInfo ReadVolumeFileInfo(const std::string& path) {
    throw InputError(path, "volume files are not readable in this build");
}

std::shared_ptr<zrobjects::ZrVObjectVolume> ReadVolumeFile(const std::string& path, std::optional<VoxelKind>) {
    throw InputError(path, "volume files are not readable in this build");
}

}  // namespace zrio
