#include "dicom_header.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <gdcmFile.h>
#include <gdcmFileMetaInformation.h>
#include <gdcmReader.h>
#include <gdcmTransferSyntax.h>

#include "dicom_attributes.h"
#include "dicom_structure.h"
#include "input_error.h"

namespace zrio::dicom {

namespace {

namespace fs = std::filesystem;
using gdcm::Tag;

// Attributes, by what they are.
const Tag kPixelData(0x7fe0, 0x0010), kFloatPixelData(0x7fe0, 0x0008), kDoubleFloatPixelData(0x7fe0, 0x0009);
const Tag kModality(0x0008, 0x0060), kSeriesDescription(0x0008, 0x103e);
const Tag kSeriesUid(0x0020, 0x000e), kSeriesNumber(0x0020, 0x0011), kAcquisitionNumber(0x0020, 0x0012);
const Tag kImagePosition(0x0020, 0x0032), kImageOrientation(0x0020, 0x0037), kTemporalPosition(0x0020, 0x0100);
const Tag kSamplesPerPixel(0x0028, 0x0002), kPhotometric(0x0028, 0x0004), kNumberOfFrames(0x0028, 0x0008);
const Tag kRows(0x0028, 0x0010), kColumns(0x0028, 0x0011), kPixelSpacing(0x0028, 0x0030);
const Tag kBitsAllocated(0x0028, 0x0100), kBitsStored(0x0028, 0x0101), kHighBit(0x0028, 0x0102);
const Tag kPixelRepresentation(0x0028, 0x0103);
const Tag kWindowCenter(0x0028, 0x1050), kWindowWidth(0x0028, 0x1051);
const Tag kRescaleIntercept(0x0028, 0x1052), kRescaleSlope(0x0028, 0x1053), kRescaleType(0x0028, 0x1054);
const Tag kSliceThickness(0x0018, 0x0050), kSpacingBetweenSlices(0x0018, 0x0088), kEchoNumbers(0x0018, 0x0086);
const Tag kTriggerTime(0x0018, 0x1060), kImagerPixelSpacing(0x0018, 0x1164);
const Tag kDoseUnits(0x3004, 0x0002), kGridFrameOffsets(0x3004, 0x000c), kDoseGridScaling(0x3004, 0x000e);
const Tag kDetectorInformation(0x0054, 0x0022), kPetUnits(0x0054, 0x1001);
// Functional groups of enhanced multi-frame files and the groups we read.
const Tag kSharedGroups(0x5200, 0x9229), kPerFrameGroups(0x5200, 0x9230);
const Tag kPlanePosition(0x0020, 0x9113), kPlaneOrientation(0x0020, 0x9116), kPixelMeasures(0x0028, 0x9110);
const Tag kValueTransformation(0x0028, 0x9145), kFrameVoiLut(0x0028, 0x9132), kFrameContent(0x0020, 0x9111);
const Tag kTemporalPositionIndex(0x0020, 0x9128), kStackId(0x0020, 0x9056);
const Tag kMrEcho(0x0018, 0x9114), kEffectiveEchoTime(0x0018, 0x9082);
const Tag kSegmentIdentification(0x0062, 0x000a), kReferencedSegment(0x0062, 0x000b);

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", value + 0.0);
    return text;
}

// Where the pixel data element of a file is, from the position at which
// GDCM stopped reading before it: the element's header is checked here
// byte by byte, so that a change in where the reader stops is noticed
// rather than trusted.
struct PixelElement {
    bool found = false;
    bool undefinedLength = false;
    uint64_t valueOffset = 0, declared = 0;
};

uint32_t Word32(const unsigned char* b, bool bigEndian) {
    return bigEndian ? (uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3])
                     : (uint32_t{b[3]} << 24 | uint32_t{b[2]} << 16 | uint32_t{b[1]} << 8 | b[0]);
}

bool IsPixelDataTag(const unsigned char* b, bool bigEndian) {
    static const unsigned char little[4] = {0xe0, 0x7f, 0x10, 0x00}, big[4] = {0x7f, 0xe0, 0x00, 0x10};
    return std::memcmp(b, bigEndian ? big : little, 4) == 0;
}

PixelElement LocatePixelData(const std::string& path, size_t stoppedAt, bool bigEndian) {
    PixelElement element;
    if (stoppedAt == static_cast<size_t>(-1) || stoppedAt < 8) return element;
    std::ifstream in(path, std::ios::binary);
    unsigned char header[12] = {};
    if (stoppedAt >= 12) {
        in.seekg(static_cast<std::streamoff>(stoppedAt - 12));
        in.read(reinterpret_cast<char*>(header), 12);
        // Explicit VR: tag, two VR letters, two reserved bytes, 32-bit length.
        if (in && IsPixelDataTag(header, bigEndian) && std::isupper(header[4]) && std::isupper(header[5])) {
            element.found = true;
            const uint32_t length = Word32(header + 8, bigEndian);
            element.undefinedLength = length == 0xffffffffu;
            element.declared = element.undefinedLength ? 0 : length;
            element.valueOffset = stoppedAt;
            return element;
        }
    }
    in.clear();
    in.seekg(static_cast<std::streamoff>(stoppedAt - 8));
    in.read(reinterpret_cast<char*>(header), 8);
    // Implicit VR: tag and 32-bit length.
    if (in && IsPixelDataTag(header, bigEndian)) {
        element.found = true;
        const uint32_t length = Word32(header + 4, bigEndian);
        element.undefinedLength = length == 0xffffffffu;
        element.declared = element.undefinedLength ? 0 : length;
        element.valueOffset = stoppedAt;
    }
    return element;
}

// A binary number (US, UL, FD) written as text, for the split keys.
std::string BinaryNumberText(const gdcm::DataSet& set, const Tag& tag) {
    if (!set.FindDataElement(tag)) return {};
    const gdcm::ByteValue* bytes = set.GetDataElement(tag).GetByteValue();
    if (!bytes || !bytes->GetPointer()) return {};
    const char* p = bytes->GetPointer();
    switch (bytes->GetLength()) {
        case 2: { uint16_t v; std::memcpy(&v, p, 2); return std::to_string(v); }
        case 4: { uint32_t v; std::memcpy(&v, p, 4); return std::to_string(v); }
        case 8: { double v; std::memcpy(&v, p, 8); return std::isfinite(v) ? Number(v) : std::string(); }
        default: return {};
    }
}

// Multi-valued text as one word for a part label ("1\2" -> "1,2").
std::string KeyText(std::string text) {
    for (char& c : text)
        if (c == '\\' || c == ' ' || c == '/') c = ',';
    return text;
}

// The first item of sequence `group` that describes frame `frame`: the
// frame's own functional group, else the shared one.
std::optional<gdcm::DataSet> FrameGroup(const gdcm::DataSet& set, size_t frame, const Tag& group) {
    if (auto perFrame = SequenceItem(set, kPerFrameGroups, frame))
        if (auto item = SequenceItem(*perFrame, group)) return item;
    if (auto shared = SequenceItem(set, kSharedGroups))
        if (auto item = SequenceItem(*shared, group)) return item;
    return std::nullopt;
}

glm::dvec3 Vector(const std::vector<double>& v, size_t first) { return {v[first], v[first + 1], v[first + 2]}; }

struct Orientation {
    glm::dvec3 row, column;
};

Orientation ParseOrientation(const std::vector<double>& values) {
    if (values.size() != 6) throw std::invalid_argument("ImageOrientationPatient does not hold six numbers");
    Orientation o{Vector(values, 0), Vector(values, 3)};
    const double rowLength = glm::length(o.row), columnLength = glm::length(o.column);
    if (!(rowLength > 1e-6) || !(columnLength > 1e-6))
        throw std::invalid_argument("ImageOrientationPatient holds a zero direction");
    o.row /= rowLength;
    o.column /= columnLength;
    // Written directions carry a few digits; a visible angle between rows
    // and columns is a broken header, not rounding.
    if (std::abs(glm::dot(o.row, o.column)) > 1e-3)
        throw std::invalid_argument("ImageOrientationPatient's row and column directions are not perpendicular (" +
                                    Number(std::acos(std::clamp(glm::dot(o.row, o.column), -1.0, 1.0)) * 180.0 / M_PI) +
                                    " degrees apart)");
    return o;
}

glm::dvec3 ParsePosition(const std::vector<double>& values) {
    if (values.size() != 3) throw std::invalid_argument("ImagePositionPatient does not hold three numbers");
    return Vector(values, 0);
}

glm::dvec2 ParseSpacing(const std::vector<double>& values, const char* name) {
    if (values.size() != 2 || !(values[0] > 0.0) || !(values[1] > 0.0))
        throw std::invalid_argument(std::string(name) + " is not two positive numbers");
    // Row spacing (between rows, down a column) first, then column spacing.
    return {values[1], values[0]};
}

// How the file stores its voxels; the pixel data element's extent is known
// from LocatePixelData.
PixelStorage ReadStorage(const gdcm::DataSet& set, const gdcm::TransferSyntax& syntax, std::string& whyNot) {
    PixelStorage s;
    const auto rows = UnsignedShort(set, kRows, "Rows"), columns = UnsignedShort(set, kColumns, "Columns");
    if (!rows || !columns || *rows == 0 || *columns == 0) {
        whyNot = "holds no image (no Rows and Columns)";
        return s;
    }
    s.rows = *rows;
    s.columns = *columns;
    s.samplesPerPixel = UnsignedShort(set, kSamplesPerPixel, "SamplesPerPixel").value_or(1);
    s.photometric = Text(set, kPhotometric);
    if (s.samplesPerPixel != 1 || (s.photometric != "MONOCHROME1" && s.photometric != "MONOCHROME2" && !s.photometric.empty())) {
        whyNot = "holds colour images (" + (s.photometric.empty() ? std::string("SamplesPerPixel ") +
                                                 std::to_string(s.samplesPerPixel) : s.photometric) +
                 "); only grey-value images make volumes";
        return s;
    }
    const auto allocated = UnsignedShort(set, kBitsAllocated, "BitsAllocated");
    if (!allocated) throw std::invalid_argument("gives no BitsAllocated");
    s.bitsAllocated = *allocated;
    if (s.bitsAllocated != 1 && s.bitsAllocated != 8 && s.bitsAllocated != 16 && s.bitsAllocated != 32)
        throw std::invalid_argument("stores " + std::to_string(s.bitsAllocated) +
                                    " bits per voxel; this program reads 1, 8, 16 and 32");
    s.bitsStored = UnsignedShort(set, kBitsStored, "BitsStored").value_or(static_cast<uint16_t>(s.bitsAllocated));
    s.highBit = UnsignedShort(set, kHighBit, "HighBit").value_or(static_cast<uint16_t>(s.bitsStored - 1));
    if (s.bitsStored < 1 || s.bitsStored > s.bitsAllocated || s.highBit < s.bitsStored - 1 ||
        s.highBit >= s.bitsAllocated)
        throw std::invalid_argument("BitsStored " + std::to_string(s.bitsStored) + " and HighBit " +
                                    std::to_string(s.highBit) + " do not fit BitsAllocated " +
                                    std::to_string(s.bitsAllocated));
    s.isSigned = UnsignedShort(set, kPixelRepresentation, "PixelRepresentation").value_or(0) == 1;
    s.transferSyntax = syntax.GetString() ? syntax.GetString() : "";
    s.bigEndian = syntax.GetSwapCode() == gdcm::SwapCode::BigEndian;
    s.encapsulated = syntax.IsEncapsulated();
    s.deflated = syntax == gdcm::TransferSyntax::DeflatedExplicitVRLittleEndian;
    if (s.encapsulated && s.bitsAllocated == 1)
        throw std::invalid_argument("holds compressed 1-bit voxels, which this program does not read");
    return s;
}

// NumberOfFrames, checked against what the pixel data holds: a value that is
// not a whole number, or data for more frames than it says, is refused, since
// reading the first frame only would give a wrong volume without a word.
void ReadFrameCount(const gdcm::DataSet& set, PixelStorage& s, const PixelElement& element) {
    const uint64_t frameBits = static_cast<uint64_t>(s.rows) * s.columns * s.bitsAllocated;
    const uint64_t frameBytes = (frameBits + 7) / 8;
    auto held = [&]() -> std::string {
        if (s.encapsulated || !element.found) return std::string();
        const uint64_t bytes = std::min(element.declared, s.bytesInFile);
        return "; its pixel data holds " + std::to_string(bytes * 8 / frameBits) + " frames of " +
               std::to_string(s.columns) + " x " + std::to_string(s.rows) + " x " + std::to_string(s.bitsAllocated) +
               " bits";
    };
    const std::string text = Text(set, kNumberOfFrames);
    if (!text.empty()) {
        const std::optional<long long> count = ParseWholeNumber(text);
        if (!count) throw std::invalid_argument("NumberOfFrames \"" + text + "\" is not a whole number" + held());
        if (*count < 1 || *count > 65536)
            throw std::invalid_argument("NumberOfFrames " + text + " is not a frame count of 1 to 65536");
        s.frames = static_cast<int>(*count);
    }
    if (s.encapsulated || !element.found) return;
    // Native data may be padded to an even length, never by a whole frame.
    if (element.declared >= s.NativeBytes() + frameBytes && frameBytes > 1)
        throw std::invalid_argument("NumberOfFrames " + (text.empty() ? std::string("is absent (1)") : "is " + text) +
                                    held() + "; the header does not say how many frames there are");
}

// Values and their units.
void ReadValueScale(const gdcm::DataSet& set, const gdcm::DataSet* group, DicomFrame& frame) {
    const gdcm::DataSet& source = group ? *group : set;
    if (auto slope = Decimal(source, kRescaleSlope, "RescaleSlope")) frame.slope = *slope;
    if (auto intercept = Decimal(source, kRescaleIntercept, "RescaleIntercept")) frame.intercept = *intercept;
    if (frame.slope == 0.0) throw std::invalid_argument("RescaleSlope is 0, which would make every value the same");
}

void ReadWindow(const gdcm::DataSet& source, DicomFrame& frame) {
    const auto centres = TextValues(source, kWindowCenter), widths = TextValues(source, kWindowWidth);
    if (centres.empty() || widths.empty()) return;
    const auto centre = ParseDecimal(centres.front()), width = ParseDecimal(widths.front());
    if (centre && width && *width > 0.0) frame.window = glm::dvec2(*centre, *width);
}

std::string UnitsOf(const gdcm::DataSet& set, const std::string& modality) {
    if (modality == "RTDOSE") {
        const std::string units = Text(set, kDoseUnits);
        if (units == "GY") return "Gy";
        if (units == "CGY") return "cGy";
        return units == "RELATIVE" ? "relative" : units;
    }
    std::string type = Text(set, kRescaleType);
    if (auto group = SequenceItem(set, kSharedGroups))
        if (auto transformation = SequenceItem(*group, kValueTransformation))
            if (type.empty()) type = Text(*transformation, kRescaleType);
    if (!type.empty() && type != "US") return type;
    if (modality == "CT") return "HU";
    if (modality == "PT") return Text(set, kPetUnits);
    return {};
}

// Frames of an enhanced multi-frame file, each placed by its functional groups.
void ReadEnhancedFrames(const gdcm::DataSet& set, const DicomFrame& common, bool spacingGiven, DicomImageFile& file) {
    const size_t count = static_cast<size_t>(file.storage.frames);
    const size_t listed = SequenceLength(set, kPerFrameGroups);
    if (listed != count)
        throw std::invalid_argument("lists functional groups for " + std::to_string(listed) + " frames but has " +
                                    std::to_string(count) + " (NumberOfFrames)");
    for (size_t k = 0; k < count; ++k) {
        DicomFrame frame = common;
        frame.index = static_cast<int>(k);
        const auto position = FrameGroup(set, k, kPlanePosition);
        const auto orientation = FrameGroup(set, k, kPlaneOrientation);
        const auto positionValues = position ? Decimals(*position, kImagePosition, "ImagePositionPatient") : std::nullopt;
        const auto orientationValues =
            orientation ? Decimals(*orientation, kImageOrientation, "ImageOrientationPatient") : std::nullopt;
        if (!positionValues || !orientationValues)
            throw std::invalid_argument("frame " + std::to_string(k + 1) +
                                        " has no plane position or orientation in its functional groups");
        frame.position = ParsePosition(*positionValues);
        const Orientation o = ParseOrientation(*orientationValues);
        frame.rowDirection = o.row;
        frame.columnDirection = o.column;
        bool spacing = spacingGiven;
        if (auto measures = FrameGroup(set, k, kPixelMeasures)) {
            if (auto values = Decimals(*measures, kPixelSpacing, "PixelSpacing")) {
                frame.pixelSpacing = ParseSpacing(*values, "PixelSpacing");
                spacing = true;
            }
            if (auto thickness = Decimal(*measures, kSliceThickness, "SliceThickness")) frame.thickness = *thickness;
        }
        if (!spacing)
            throw std::invalid_argument("frame " + std::to_string(k + 1) + " has no pixel spacing in its functional groups");
        if (auto transformation = FrameGroup(set, k, kValueTransformation))
            ReadValueScale(set, &*transformation, frame);
        if (auto voi = FrameGroup(set, k, kFrameVoiLut)) ReadWindow(*voi, frame);
        if (auto content = FrameGroup(set, k, kFrameContent)) {
            if (std::string t = BinaryNumberText(*content, kTemporalPositionIndex); !t.empty()) frame.keys[kTime] = t;
            if (std::string s = Text(*content, kStackId); !s.empty()) frame.keys[kStack] = KeyText(s);
        }
        if (auto echo = FrameGroup(set, k, kMrEcho))
            if (std::string e = BinaryNumberText(*echo, kEffectiveEchoTime); !e.empty()) frame.keys[kEcho] = e;
        if (auto segment = FrameGroup(set, k, kSegmentIdentification))
            if (std::string s = BinaryNumberText(*segment, kReferencedSegment); !s.empty()) frame.keys[kSegment] = s;
        file.frames.push_back(frame);
    }
    file.placement = "per-frame image positions";
}

// Where a legacy file's first frame is and how it is turned; NM files keep
// both in their detector information.
std::optional<std::pair<glm::dvec3, Orientation>> LegacyPlacement(const gdcm::DataSet& set) {
    const gdcm::DataSet* source = &set;
    std::optional<gdcm::DataSet> detector;
    if (!set.FindDataElement(kImagePosition) && (detector = SequenceItem(set, kDetectorInformation))) source = &*detector;
    const auto position = Decimals(*source, kImagePosition, "ImagePositionPatient");
    const auto orientation = Decimals(*source, kImageOrientation, "ImageOrientationPatient");
    if (!position || !orientation) return std::nullopt;
    return std::make_pair(ParsePosition(*position), ParseOrientation(*orientation));
}

// Frames of a single-frame or legacy multi-frame file: one position, the
// others along the normal by the grid offsets of an RT dose or the spacing
// between slices.
void ReadLegacyFrames(const gdcm::DataSet& set, DicomFrame common, DicomImageFile& file,
                      const std::pair<glm::dvec3, Orientation>& placement) {
    common.position = placement.first;
    common.rowDirection = placement.second.row;
    common.columnDirection = placement.second.column;
    const glm::dvec3 normal = glm::cross(common.rowDirection, common.columnDirection);
    const int count = file.storage.frames;
    std::vector<glm::dvec3> positions(static_cast<size_t>(count), common.position);
    if (const auto offsets = Decimals(set, kGridFrameOffsets, "GridFrameOffsetVector")) {
        // Checked here, for one frame too, because GDCM's own image reader
        // asserts on a list that does not match the frames.
        if (offsets->size() != static_cast<size_t>(count))
            throw std::invalid_argument("GridFrameOffsetVector lists " + std::to_string(offsets->size()) +
                                        " offsets for " + std::to_string(count) + (count == 1 ? " frame" : " frames") +
                                        " (NumberOfFrames); each frame needs exactly one");
        const bool relative = offsets->front() == 0.0;
        if (!relative && std::abs(std::abs(normal.z) - 1.0) > 1e-6)
            throw std::invalid_argument("GridFrameOffsetVector gives z positions (its first offset is not 0), "
                                        "which only an axial dose grid can have");
        for (int k = 0; k < count; ++k) {
            const double offset = (*offsets)[static_cast<size_t>(k)];
            // Relative offsets run along the normal from the first frame;
            // absolute ones are the frames' z coordinates.
            positions[static_cast<size_t>(k)] =
                relative ? common.position + offset * normal
                         : glm::dvec3(common.position.x, common.position.y, offset);
        }
        file.placement = "image position and GridFrameOffsetVector";
    } else if (count == 1) {
        file.placement = "image positions";
    } else {
        std::optional<double> step = Decimal(set, kSpacingBetweenSlices, "SpacingBetweenSlices");
        file.placement = "image position and SpacingBetweenSlices";
        if (!step || *step == 0.0) {
            if (common.thickness > 0.0) {
                step = common.thickness;
                file.placement = "image position and SliceThickness";
                file.warnings.push_back("frames placed " + Number(*step) +
                                        " mm apart by SliceThickness: the file gives no SpacingBetweenSlices");
            } else {
                throw std::invalid_argument("multi-frame file gives one image position and no spacing between its " +
                                            std::to_string(count) + " frames, so they cannot be placed");
            }
        }
        for (int k = 0; k < count; ++k) positions[static_cast<size_t>(k)] = common.position + (*step * k) * normal;
    }
    for (int k = 0; k < count; ++k) {
        DicomFrame frame = common;
        frame.index = k;
        frame.position = positions[static_cast<size_t>(k)];
        file.frames.push_back(frame);
    }
}

// True when the file carries the DICM mark after its preamble.
bool HasDicomMark(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char head[132] = {};
    in.read(head, sizeof(head));
    return in.gcount() == 132 && std::memcmp(head + 128, "DICM", 4) == 0;
}

}  // namespace

uint64_t PixelStorage::NativeBytes() const {
    const uint64_t bits = static_cast<uint64_t>(rows) * columns * frames * bitsAllocated;
    return (bits + 7) / 8;
}

const char* SplitKeyName(SplitKey key) {
    switch (key) {
        case kEcho: return "echo";
        case kTime: return "time";
        case kTrigger: return "trigger";
        case kAcquisition: return "acquisition";
        case kStack: return "stack";
        case kSegment: return "segment";
        case kSplitKeys: break;
    }
    return "?";
}

bool LooksLikeDicom(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char head[132] = {};
    in.read(reinterpret_cast<char*>(head), sizeof(head));
    const std::streamsize got = in.gcount();
    if (got == 132 && std::memcmp(head + 128, "DICM", 4) == 0) return true;
    // A data set without preamble starts with a group 0002 or 0008 tag
    // (little endian), whose element number is small.
    return got >= 8 && (head[0] == 0x02 || head[0] == 0x08) && head[1] == 0x00 && head[3] == 0x00;
}

HeaderResult ReadDicomHeader(const std::string& path, DicomImageFile& file, std::string& whyNot) {
    // GDCM's parser asserts on a broken file, so none reaches it.
    if (const std::string problem = StructureProblem(path); !problem.empty()) {
        if (HasDicomMark(path)) throw InputError(path, "is not well-formed DICOM: " + problem);
        return HeaderResult::NotDicom;
    }
    gdcm::Reader reader;
    reader.SetFileName(path.c_str());
    bool read = false;
    try {
        read = reader.ReadUpToTag(kPixelData, {kPixelData});
    } catch (...) {
        read = false;
    }
    if (!read) return HeaderResult::NotDicom;
    const gdcm::DataSet& set = reader.GetFile().GetDataSet();
    const gdcm::TransferSyntax syntax = reader.GetFile().GetHeader().GetDataSetTransferSyntax();
    file = DicomImageFile{};
    file.path = path;
    try {
        file.modality = Text(set, kModality);
        file.seriesUid = Text(set, kSeriesUid);
        file.seriesDescription = Text(set, kSeriesDescription);
        file.seriesNumber = Text(set, kSeriesNumber);
        if (set.FindDataElement(kFloatPixelData) || set.FindDataElement(kDoubleFloatPixelData))
            throw std::invalid_argument("holds float pixel data (a parametric map), which this program does not read");
        PixelStorage& s = file.storage;
        s = ReadStorage(set, syntax, whyNot);
        if (!whyNot.empty()) return HeaderResult::NotVolumeImage;

        PixelElement element;
        if (!s.deflated) {
            element = LocatePixelData(path, reader.GetStreamCurrentPosition(), s.bigEndian);
            if (!element.found) {
                whyNot = "holds no pixel data";
                return HeaderResult::NotVolumeImage;
            }
            if (element.undefinedLength != s.encapsulated)
                throw std::invalid_argument(std::string("pixel data is ") +
                                            (s.encapsulated ? "not in fragments, as its compressed transfer syntax needs"
                                                            : "in fragments, yet its transfer syntax is uncompressed"));
            std::error_code ec;
            const uint64_t size = fs::file_size(path, ec);
            s.valueOffset = element.valueOffset;
            s.declaredBytes = element.declared;
            s.bytesInFile = ec || size < element.valueOffset ? 0 : size - element.valueOffset;
        }
        ReadFrameCount(set, s, element);
        if (!s.encapsulated && !s.deflated) {
            const uint64_t needed = s.NativeBytes();
            const std::string layout = std::to_string(s.frames) + (s.frames == 1 ? " frame" : " frames") + " of " +
                                       std::to_string(s.columns) + " x " + std::to_string(s.rows) + " x " +
                                       std::to_string(s.bitsAllocated) + " bits need " + std::to_string(needed);
            if (s.declaredBytes < needed)
                throw std::invalid_argument("pixel data holds " + std::to_string(s.declaredBytes) + " bytes; " + layout +
                                            " (the header and the data disagree)");
            if (s.bytesInFile < needed)
                throw std::invalid_argument("file is cut short: " + std::to_string(s.bytesInFile) +
                                            " bytes of pixel data are left; " + layout);
        }

        // What every frame shares.
        DicomFrame common;
        bool spacingGiven = true;
        if (auto spacing = Decimals(set, kPixelSpacing, "PixelSpacing")) {
            common.pixelSpacing = ParseSpacing(*spacing, "PixelSpacing");
        } else if (auto imager = Decimals(set, kImagerPixelSpacing, "ImagerPixelSpacing")) {
            common.pixelSpacing = ParseSpacing(*imager, "ImagerPixelSpacing");
            file.warnings.push_back("pixel spacing taken from ImagerPixelSpacing (" + Number(common.pixelSpacing.y) +
                                    " x " + Number(common.pixelSpacing.x) +
                                    " mm, measured at the detector): the file gives no PixelSpacing");
        } else {
            spacingGiven = false;
        }
        if (auto thickness = Decimal(set, kSliceThickness, "SliceThickness")) common.thickness = *thickness;
        ReadValueScale(set, nullptr, common);
        ReadWindow(set, common);
        if (file.modality == "RTDOSE") {
            const auto scaling = Decimal(set, kDoseGridScaling, "DoseGridScaling");
            if (!scaling || !(*scaling > 0.0))
                throw std::invalid_argument("RT dose gives no positive DoseGridScaling, so its values have no scale");
            common.slope *= *scaling;
            common.intercept *= *scaling;
        }
        file.units = UnitsOf(set, file.modality);
        common.keys[kEcho] = KeyText(Text(set, kEchoNumbers));
        common.keys[kTime] = KeyText(Text(set, kTemporalPosition));
        common.keys[kTrigger] = KeyText(Text(set, kTriggerTime));
        common.keys[kAcquisition] = KeyText(Text(set, kAcquisitionNumber));

        if (SequenceLength(set, kPerFrameGroups) > 0) {
            ReadEnhancedFrames(set, common, spacingGiven, file);
        } else {
            const auto placement = LegacyPlacement(set);
            if (!placement) {
                whyNot = "gives no ImagePositionPatient and ImageOrientationPatient, so it cannot be placed in the "
                         "patient (a radiograph or screen capture?)";
                return HeaderResult::NotVolumeImage;
            }
            if (!spacingGiven)
                throw std::invalid_argument("gives no PixelSpacing, so its voxels have no size");
            ReadLegacyFrames(set, common, file, *placement);
        }
        if (s.photometric == "MONOCHROME1")
            file.notes.push_back("MONOCHROME1: the file means higher values to look darker; drawn through the "
                                 "request's tables like any other values");
    } catch (const std::invalid_argument& e) {
        throw InputError(path, e.what());
    }
    return HeaderResult::Image;
}

}  // namespace zrio::dicom
