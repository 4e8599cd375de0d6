#include "dicom_series.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "dicom_attributes.h"

namespace zrio::dicom {

namespace {

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.6g", value + 0.0);
    return text;
}

std::string Point(const glm::dvec3& p) { return "(" + Number(p.x) + ", " + Number(p.y) + ", " + Number(p.z) + ")"; }

glm::dvec3 Normal(const DicomFrame& frame) { return glm::cross(frame.rowDirection, frame.columnDirection); }

// Two positions closer than this are the same place (written positions
// carry a few decimals).
constexpr double kSamePlace = 0.01;

// A part of a series: frames on one grid, with the labels that set it apart.
struct Part {
    std::vector<DicomFrame> frames;
    std::vector<std::pair<std::string, std::string>> label;  // (key, value)
};

std::string PlaneName(const glm::dvec3& normal) {
    const glm::dvec3 a = glm::abs(normal);
    // Within 30 degrees of an axis the plane is named after it.
    const double named = std::cos(M_PI / 6.0);
    if (a.z >= named) return "axial";
    if (a.y >= named) return "coronal";
    if (a.x >= named) return "sagittal";
    return "oblique";
}

// What frames of one volume must share: orientation, size, pixel spacing and
// voxel format, rounded past the noise of written decimals.
using GridKey = std::vector<long long>;
GridKey GridOf(const DicomFrame& frame, const PixelStorage& s) {
    auto round = [](double v, double unit) { return static_cast<long long>(std::llround(v / unit)); };
    GridKey key;
    for (int k = 0; k < 3; ++k) key.push_back(round(frame.rowDirection[k], 1e-4));
    for (int k = 0; k < 3; ++k) key.push_back(round(frame.columnDirection[k], 1e-4));
    key.push_back(round(frame.pixelSpacing.x, 1e-4));
    key.push_back(round(frame.pixelSpacing.y, 1e-4));
    key.insert(key.end(), {s.rows, s.columns, s.bitsAllocated, s.isSigned ? 1 : 0});
    return key;
}

// Frames sorted along the normal of the first; the first pair that shares a
// position, if any.
std::optional<std::pair<size_t, size_t>> SortAlongNormal(std::vector<DicomFrame>& frames) {
    const glm::dvec3 normal = Normal(frames.front());
    std::stable_sort(frames.begin(), frames.end(), [&](const DicomFrame& a, const DicomFrame& b) {
        return glm::dot(a.position, normal) < glm::dot(b.position, normal);
    });
    for (size_t k = 0; k < frames.size(); ++k)
        for (size_t m = k + 1; m < frames.size(); ++m) {
            if (glm::dot(frames[m].position - frames[k].position, normal) > kSamePlace) break;
            if (glm::length(frames[m].position - frames[k].position) < kSamePlace) return std::make_pair(k, m);
        }
    return std::nullopt;
}

bool AllNumbers(const std::vector<std::string>& values) {
    return std::all_of(values.begin(), values.end(), [](const std::string& v) { return ParseDecimal(v).has_value(); });
}

// Splits `part` by the first key that differs among its frames, from
// `firstKey` on, until no two frames share a position.
void SplitByKeys(Part part, int firstKey, std::vector<std::pair<Part, std::string>>& out) {
    const auto shared = SortAlongNormal(part.frames);
    if (!shared) {
        out.emplace_back(std::move(part), std::string());
        return;
    }
    for (int key = firstKey; key < kSplitKeys; ++key) {
        std::vector<std::string> values;
        for (const DicomFrame& frame : part.frames)
            if (std::find(values.begin(), values.end(), frame.keys[key]) == values.end())
                values.push_back(frame.keys[key]);
        if (values.size() < 2) continue;
        if (AllNumbers(values))
            std::sort(values.begin(), values.end(),
                      [](const std::string& a, const std::string& b) { return *ParseDecimal(a) < *ParseDecimal(b); });
        else
            std::sort(values.begin(), values.end());
        for (const std::string& value : values) {
            Part sub;
            sub.label = part.label;
            // Numbers are written plainly ("350.0" and "350" are the same trigger time).
            const auto number = ParseDecimal(value);
            sub.label.emplace_back(SplitKeyName(static_cast<SplitKey>(key)),
                                   value.empty() ? "none" : number ? Number(*number) : value);
            for (const DicomFrame& frame : part.frames)
                if (frame.keys[key] == value) sub.frames.push_back(frame);
            SplitByKeys(std::move(sub), key + 1, out);
        }
        return;
    }
    // Nothing tells them apart: the part is listed but cannot be read.
    const std::string problem = "two of its images lie at " + Point(part.frames[shared->first].position) +
                                " and nothing tells them apart (echo, time point, trigger time, acquisition, stack, "
                                "segment); a folder holding the same image twice?";
    out.emplace_back(std::move(part), problem);
}

// Splits a series into parts on one grid each, then by the split keys.
std::vector<std::pair<Part, std::string>> SplitSeries(const std::vector<DicomFrame>& frames,
                                                      const std::vector<DicomImageFile>& files) {
    std::vector<GridKey> keys;
    std::vector<Part> grids;
    for (const DicomFrame& frame : frames) {
        const GridKey key = GridOf(frame, files[frame.file].storage);
        const auto found = std::find(keys.begin(), keys.end(), key);
        if (found == keys.end()) {
            keys.push_back(key);
            grids.push_back(Part{{frame}, {}});
        } else {
            grids[static_cast<size_t>(found - keys.begin())].frames.push_back(frame);
        }
    }
    if (grids.size() > 1) {
        // Labelled by what sets the grids apart: the plane, else the size.
        std::vector<std::string> planes;
        for (const Part& grid : grids) planes.push_back(PlaneName(Normal(grid.frames.front())));
        std::map<std::string, int> seen;
        for (size_t k = 0; k < grids.size(); ++k) {
            const PixelStorage& s = files[grids[k].frames.front().file].storage;
            const bool planesDiffer = std::count(planes.begin(), planes.end(), planes[k]) < static_cast<long>(grids.size());
            std::string key = planesDiffer ? "orientation" : "size";
            std::string value = planesDiffer ? planes[k] : std::to_string(s.columns) + "x" + std::to_string(s.rows);
            const int n = ++seen[key + value];
            if (n > 1) value += "-" + std::to_string(n);
            grids[k].label.emplace_back(key, value);
        }
    }
    std::vector<std::pair<Part, std::string>> parts;
    for (Part& grid : grids) SplitByKeys(std::move(grid), 0, parts);
    return parts;
}

// Why the positions of sorted frames are not an even line, or empty.
std::string UnevenPositions(const std::vector<DicomFrame>& slices, const glm::dvec3& step, double tolerance) {
    const glm::dvec3 normal = Normal(slices.front());
    double smallest = INFINITY;
    for (size_t k = 1; k < slices.size(); ++k)
        smallest = std::min(smallest, glm::dot(slices[k].position - slices[k - 1].position, normal));
    size_t gaps = 0, firstGap = 0;
    for (size_t k = 1; k < slices.size(); ++k)
        if (glm::dot(slices[k].position - slices[k - 1].position, normal) > smallest + tolerance && !gaps++) firstGap = k;
    if (gaps) {
        const double apart = glm::dot(slices[firstGap].position - slices[firstGap - 1].position, normal);
        return "slices are not evenly spaced: " + Number(smallest) + " mm apart, but " + Number(apart) +
               " mm between the slices at " + Point(slices[firstGap - 1].position) + " and " +
               Point(slices[firstGap].position) + (gaps > 1 ? " and at " + std::to_string(gaps - 1) + " more places" : "") +
               " (slices missing?); spacing is never evened out here: add the missing slices";
    }
    size_t worst = 0;
    double off = 0.0;
    for (size_t k = 0; k < slices.size(); ++k) {
        const double d = glm::length(slices[k].position - (slices.front().position + static_cast<double>(k) * step));
        if (d > off) off = d, worst = k;
    }
    return "slice positions do not lie evenly on one line: the slice at " + Point(slices[worst].position) + " is " +
           Number(off) + " mm off";
}

void AddOnce(std::vector<std::string>& list, const std::string& text) {
    if (std::find(list.begin(), list.end(), text) == list.end()) list.push_back(text);
}

// Places a part's sorted frames and gathers what a user should know.
void PlaceVolume(DicomVolume& v, const std::vector<DicomImageFile>& files) {
    const DicomFrame& first = v.slices.front();
    const DicomImageFile& file = files[first.file];
    const glm::dvec3 normal = Normal(first);
    const size_t n = v.slices.size();
    v.dims = glm::ivec3(file.storage.columns, file.storage.rows, static_cast<int>(n));
    v.geometry.spacing = glm::dvec3(first.pixelSpacing, 1.0);
    v.geometry.origin = first.position;
    v.geometry.direction[0] = first.rowDirection;
    v.geometry.direction[1] = first.columnDirection;
    v.geometry.direction[2] = normal;
    const std::string slices = std::to_string(n) + (n == 1 ? " slice" : " slices");
    if (n == 1) {
        v.geometry.spacing.z = first.thickness > 0.0 ? first.thickness : 1.0;
        v.placement = file.placement + " of 1 slice, " +
                      (first.thickness > 0.0 ? Number(first.thickness) + " mm deep (SliceThickness)"
                                             : std::string("1 mm deep (no SliceThickness)"));
    } else {
        const glm::dvec3 step = (v.slices.back().position - first.position) / static_cast<double>(n - 1);
        const double stepLength = glm::length(step), along = glm::dot(step, normal);
        double worst = 0.0;
        for (size_t k = 0; k < n; ++k)
            worst = std::max(worst, glm::length(v.slices[k].position - (first.position + static_cast<double>(k) * step)));
        const double tolerance = std::max(1e-3, 0.01 * stepLength);
        if (worst > tolerance && v.problem.empty()) v.problem = UnevenPositions(v.slices, step, tolerance);
        if (stepLength > 0.0) {
            v.geometry.spacing.z = stepLength;
            v.geometry.direction[2] = step / stepLength;
        }
        v.placement = file.placement + " of " + slices + ", spacing " + Number(along) + " mm" +
                      (file.placement == "image positions" || file.placement == "per-frame image positions"
                           ? " from the positions" : "");
        const double tilt = std::acos(std::clamp(along / stepLength, -1.0, 1.0)) * 180.0 / M_PI;
        if (tilt > 0.01) {
            char text[200];
            std::snprintf(text, sizeof(text),
                          "gantry tilt %.3g\xC2\xB0: each slice is shifted %.4g mm in its plane from the one "
                          "before; placed exactly by a sheared voxel-to-world matrix",
                          tilt, glm::length(step - along * normal));
            v.notes.push_back(text);
        }
        if (first.thickness > 0.0 && std::abs(first.thickness - along) > 0.01 * along)
            v.notes.push_back("slice thickness " + Number(first.thickness) + " mm differs from the spacing " +
                              Number(along) + " mm between positions (" +
                              (first.thickness > along ? "slices overlap" : "gaps between slices") + ")");
    }
    // Values.
    v.slope = first.slope;
    v.intercept = first.intercept;
    for (const DicomFrame& frame : v.slices)
        if (frame.slope != v.slope || frame.intercept != v.intercept) v.sameScale = false;
    if (!v.sameScale)
        v.notes.push_back("rescale slope and intercept differ between slices: each slice is scaled by its own, "
                          "giving float values");
    else if (v.slope != 1.0 || v.intercept != 0.0)
        v.notes.push_back("values rescaled by the file's slope " + Number(v.slope) + " and intercept " +
                          Number(v.intercept) + (file.units.empty() ? "" : " (" + file.units + ")"));
    for (const DicomFrame& frame : v.slices)
        if (frame.window) {
            v.window = frame.window;
            break;
        }
    if (v.window) {
        bool differ = false;
        for (const DicomFrame& frame : v.slices) differ |= frame.window && *frame.window != *v.window;
        v.notes.push_back("the file's window: centre " + Number(v.window->x) + ", width " + Number(v.window->y) +
                          (differ ? " (the first slice's; others differ)" : "") +
                          ", used when a request gives no WINDOWING table");
    }
    v.units = file.units;
    for (const DicomFrame& frame : v.slices) {
        for (const std::string& note : files[frame.file].notes) AddOnce(v.notes, note);
        for (const std::string& warning : files[frame.file].warnings) AddOnce(v.warnings, warning);
    }
}

std::string FileName(const std::string& path) { return std::filesystem::path(path).filename().string(); }

std::string ListOf(const std::vector<DicomVolume>& volumes) {
    std::string list;
    for (const DicomVolume& v : volumes) list += (list.empty() ? "" : "; ") + v.line;
    return list;
}

std::string HowToPick(const std::vector<DicomVolume>& volumes) {
    return "holds " + std::to_string(volumes.size()) +
           " volumes; pick one with \"series\" in the request's volume object (a series number or UID, or the label "
           "before the colon): " + ListOf(volumes);
}

}  // namespace

std::vector<DicomVolume> SplitIntoVolumes(const std::vector<DicomImageFile>& files) {
    // Series in order of first appearance; files without a series UID each
    // make their own.
    std::vector<std::string> order;
    std::map<std::string, std::vector<DicomFrame>> series;
    for (size_t f = 0; f < files.size(); ++f) {
        const std::string key = files[f].seriesUid.empty() ? "file:" + files[f].path : files[f].seriesUid;
        if (!series.count(key)) order.push_back(key);
        for (DicomFrame frame : files[f].frames) {
            frame.file = f;
            series[key].push_back(frame);
        }
    }
    // By series number, then as found.
    auto numberOf = [&](const std::string& key) {
        const auto number = ParseDecimal(files[series[key].front().file].seriesNumber);
        return number ? *number : INFINITY;
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](const std::string& a, const std::string& b) { return numberOf(a) < numberOf(b); });
    std::map<std::string, int> numbers;
    for (const std::string& key : order) ++numbers[files[series[key].front().file].seriesNumber];

    std::vector<DicomVolume> volumes;
    for (const std::string& key : order) {
        const DicomImageFile& file = files[series[key].front().file];
        // A series is picked by its number when no other series shares it.
        std::string base = !file.seriesNumber.empty() && numbers[file.seriesNumber] == 1 ? file.seriesNumber
                           : !file.seriesUid.empty()                                     ? file.seriesUid
                                                                                        : FileName(file.path);
        for (auto& [part, problem] : SplitSeries(series[key], files)) {
            DicomVolume v;
            v.seriesUid = file.seriesUid;
            v.seriesNumber = file.seriesNumber;
            std::string words;
            for (const auto& [name, value] : part.label) {
                v.part += (v.part.empty() ? "" : "/") + name + "=" + value;
                words += " " + name + " " + value;
            }
            v.pick = base + (v.part.empty() ? "" : "/" + v.part);
            v.slices = std::move(part.frames);
            v.problem = problem;
            PlaceVolume(v, files);
            v.line = v.pick + ": series " + (file.seriesNumber.empty() ? "without number" : file.seriesNumber) +
                     (file.seriesDescription.empty() ? "" : " \"" + file.seriesDescription + "\"") + words +
                     (file.seriesUid.empty() ? "" : " (" + file.seriesUid + ")") + ": " + std::to_string(v.dims.z) +
                     (v.dims.z == 1 ? " slice " : " slices ") + std::to_string(v.dims.x) + " x " +
                     std::to_string(v.dims.y) + (v.problem.empty() ? "" : ", cannot be read: " + v.problem);
            volumes.push_back(std::move(v));
        }
    }
    return volumes;
}

const DicomVolume& ChooseVolume(const std::vector<DicomVolume>& volumes, const VolumeChoice& choice) {
    if (volumes.empty()) throw std::invalid_argument("holds no DICOM image volume");
    if (choice.frame)
        throw std::invalid_argument("\"frame\" picks a time point of a 4-D NIfTI or MGH file; a DICOM volume is picked "
                                    "with \"series\" (a time point of a series is a part such as \"3/time=2\"): " +
                                    ListOf(volumes));
    auto checked = [](const DicomVolume& v) -> const DicomVolume& {
        if (!v.problem.empty()) throw std::invalid_argument("series " + v.pick + ": " + v.problem);
        return v;
    };
    const std::string& wanted = choice.series;
    if (wanted.empty()) {
        if (volumes.size() == 1) return checked(volumes.front());
        throw std::invalid_argument(HowToPick(volumes));
    }
    for (const DicomVolume& v : volumes)
        if (v.pick == wanted) return checked(v);
    // The series by number or UID, then the part after the first "/".
    const size_t slash = wanted.find('/');
    const std::string seriesText = wanted.substr(0, slash);
    const std::string partText = slash == std::string::npos ? "" : wanted.substr(slash + 1);
    std::vector<const DicomVolume*> matches;
    for (const DicomVolume& v : volumes) {
        const auto number = ParseDecimal(v.seriesNumber), given = ParseDecimal(seriesText);
        const bool series = v.seriesUid == seriesText || v.seriesNumber == seriesText || (number && given && *number == *given);
        if (series && (partText.empty() || v.part == partText)) matches.push_back(&v);
    }
    // A part alone names it when the input holds one series.
    if (matches.empty() && slash == std::string::npos) {
        bool oneSeries = true;
        for (const DicomVolume& v : volumes) oneSeries &= v.seriesUid == volumes.front().seriesUid;
        if (oneSeries)
            for (const DicomVolume& v : volumes)
                if (v.part == wanted) matches.push_back(&v);
    }
    if (matches.size() == 1) return checked(*matches.front());
    if (matches.empty())
        throw std::invalid_argument("holds no series or part \"" + wanted + "\"; it holds: " + ListOf(volumes));
    std::vector<DicomVolume> candidates;
    for (const DicomVolume* v : matches) candidates.push_back(*v);
    bool sameSeries = true;
    for (const DicomVolume* v : matches) sameSeries &= v->seriesUid == matches.front()->seriesUid;
    throw std::invalid_argument(std::string(sameSeries ? "series \"" + wanted + "\" holds several volumes"
                                                       : "several series are numbered " + wanted + ", pick one by UID") +
                                "; " + HowToPick(candidates));
}

}  // namespace zrio::dicom
