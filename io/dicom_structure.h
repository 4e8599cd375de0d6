// A walk over every element of a DICOM file that checks its structure
// without reading values: tags, value representations, lengths, nested
// sequences and items, compressed fragments, all within the file. GDCM's
// parser asserts (ending the process) on files that break these rules, so a
// file is handed to it only after this walk has passed.
#pragma once

#include <string>

namespace zrio::dicom {

// Empty when the file's structure is sound; otherwise what is wrong and
// where, in a few words ("element (0028,0010) at byte 812 runs past the end
// of the file"). A native pixel data element may run past the end of the
// file: the header scan reports that with the sizes involved.
std::string StructureProblem(const std::string& path);

}  // namespace zrio::dicom
