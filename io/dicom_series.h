// The volumes a DICOM input holds, from the headers of its image files.
//
// Frames are grouped by series UID; a series whose frames differ in grid
// (orientation, size, pixel spacing, voxel format) is split by it, and one
// whose frames share a position is split by echo, time point, trigger time,
// acquisition, stack and segment, in that order, until every position is
// unique. Each volume's frames are sorted along the normal of its rows and
// columns and placed by their positions: the k axis is the step between
// consecutive positions, so a gantry tilt becomes a sheared grid placed
// exactly. Uneven steps (a slice missing) are refused, never evened out.
#pragma once

#include <string>
#include <vector>

#include "dicom_header.h"
#include "host/volume_builder.h"
#include "volume_files.h"

namespace zrio::dicom {

// A volume of a DICOM input: a whole series or a part of one.
struct DicomVolume {
    std::string pick;   // what "series" takes to choose it: "3", "3/echo=2", or a UID when numbers repeat
    std::string line;   // one line for a list: pick, series, part, UID, slices and size
    std::string seriesUid, seriesNumber, part;  // part: "echo=2", "time=3/echo=1", ... empty for a whole series
    std::vector<DicomFrame> slices;  // in order along the normal
    glm::ivec3 dims{0};
    zrobjects::VolumeGeometry geometry;  // LPS; the k column is the step between positions
    std::string placement;
    std::vector<std::string> notes, warnings;
    std::string units;
    std::optional<glm::dvec2> window;
    bool sameScale = true;  // every slice has the same slope and intercept
    double slope = 1.0, intercept = 0.0;
    // Why this volume cannot be read (uneven spacing, positions nothing tells
    // apart); it is still listed, and refused only when chosen.
    std::string problem;
};

// The volumes of `files`, in order of series number, then part.
std::vector<DicomVolume> SplitIntoVolumes(const std::vector<DicomImageFile>& files);

// The volume `choice` names (a series number or UID, optionally followed by
// "/" and a part label such as "echo=2"; the part alone when there is one
// series), or the only one. Throws std::invalid_argument listing the volumes
// and how to pick one when the choice is missing or matches none, and the
// chosen volume's problem when it has one.
const DicomVolume& ChooseVolume(const std::vector<DicomVolume>& volumes, const VolumeChoice& choice);

}  // namespace zrio::dicom
