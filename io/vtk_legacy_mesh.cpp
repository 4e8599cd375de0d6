// Legacy VTK files (.vtk) holding POLYDATA, in ASCII or big-endian BINARY, in
// both cell layouts: "POLYGONS cells size" followed by (count, indices...) per
// cell before version 5, and "POLYGONS offsets connectivity" followed by an
// OFFSETS and a CONNECTIVITY array from version 5 on. Point and cell
// attributes are not needed and end the reading.
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "byte_source.h"
#include "input_error.h"
#include "vtk_poly_data.h"

namespace zrio {

namespace {

class LegacyFile {
public:
    LegacyFile(const std::string& path) : path_(path) {
        std::ifstream in(path, std::ios::binary);
        if (!in) throw InputError(path, "cannot open the file");
        std::ostringstream all;
        all << in.rdbuf();
        bytes_ = all.str();
    }

    [[noreturn]] void Fail(const std::string& what) const { throw InputError(path_, what); }

    bool AtEnd() {
        SkipSpace();
        return at_ >= bytes_.size();
    }

    std::string Line() {
        if (at_ >= bytes_.size()) Fail("ends before its header is complete");
        const size_t end = bytes_.find('\n', at_);
        std::string line = bytes_.substr(at_, end == std::string::npos ? std::string::npos : end - at_);
        at_ = end == std::string::npos ? bytes_.size() : end + 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        return line;
    }

    std::string Word() {
        SkipSpace();
        const size_t start = at_;
        while (at_ < bytes_.size() && !std::isspace(static_cast<unsigned char>(bytes_[at_]))) ++at_;
        if (start == at_) Fail("ends in the middle of its data");
        return bytes_.substr(start, at_ - start);
    }

    int64_t Count() {
        const std::string word = Word();
        try {
            size_t used = 0;
            const long long value = std::stoll(word, &used);
            if (used == word.size() && value >= 0) return value;
        } catch (const std::exception&) {
        }
        Fail("expected a count, found \"" + word.substr(0, 20) + "\"");
    }

    // `count` numbers of VTK type `type`, as text or big-endian binary.
    template <class Out>
    std::vector<Out> Numbers(int64_t count, const std::string& type, bool binary) {
        if (count > static_cast<int64_t>(bytes_.size())) Fail("declares more values than the file holds");
        std::vector<Out> out(static_cast<size_t>(count));
        if (!binary) {
            for (auto& value : out) {
                const std::string word = Word();
                try {
                    value = static_cast<Out>(std::stod(word));
                } catch (const std::exception&) {
                    Fail("expected a number, found \"" + word.substr(0, 20) + "\"");
                }
            }
            return out;
        }
        // Binary data starts right after the line that announced it.
        if (type == "float") return Binary<float, Out>(count);
        if (type == "double") return Binary<double, Out>(count);
        if (type == "int" || type == "vtktypeint32") return Binary<int32_t, Out>(count);
        if (type == "unsigned_int" || type == "vtktypeuint32") return Binary<uint32_t, Out>(count);
        if (type == "long" || type == "vtktypeint64" || type == "vtkIdType") return Binary<int64_t, Out>(count);
        if (type == "unsigned_long" || type == "vtktypeuint64") return Binary<uint64_t, Out>(count);
        if (type == "short") return Binary<int16_t, Out>(count);
        if (type == "unsigned_short") return Binary<uint16_t, Out>(count);
        if (type == "char") return Binary<int8_t, Out>(count);
        if (type == "unsigned_char") return Binary<uint8_t, Out>(count);
        Fail("holds values of type \"" + type + "\", which this program cannot read");
    }

    std::string Peek() {
        const size_t at = at_;
        std::string word = Word();
        at_ = at;
        return word;
    }

    void SkipRestOfLine() {
        const size_t end = bytes_.find('\n', at_);
        at_ = end == std::string::npos ? bytes_.size() : end + 1;
    }

private:
    void SkipSpace() {
        while (at_ < bytes_.size() && std::isspace(static_cast<unsigned char>(bytes_[at_]))) ++at_;
    }

    template <class Stored, class Out>
    std::vector<Out> Binary(int64_t count) {
        const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(Stored);
        if (bytes > bytes_.size() - at_) Fail("is truncated: its binary data ends early");
        std::vector<Out> out(static_cast<size_t>(count));
        for (int64_t k = 0; k < count; ++k) {
            Stored value;
            std::memcpy(&value, bytes_.data() + at_ + k * sizeof(Stored), sizeof(Stored));
            if (std::endian::native != std::endian::big) SwapBytes(&value, 1, sizeof(Stored));
            out[static_cast<size_t>(k)] = static_cast<Out>(value);
        }
        at_ += bytes;
        return out;
    }

    std::string path_;
    std::string bytes_;
    size_t at_ = 0;
};

// Cells before version 5: for each cell its point count, then its points.
VtkCells CountedCells(LegacyFile& file, int64_t cells, int64_t size, bool binary) {
    const std::vector<int64_t> flat = file.Numbers<int64_t>(size, "int", binary);
    VtkCells out;
    out.offsets.push_back(0);
    size_t at = 0;
    for (int64_t cell = 0; cell < cells; ++cell) {
        if (at >= flat.size() || flat[at] < 0 || static_cast<uint64_t>(flat[at]) > flat.size() - at - 1)
            file.Fail("its cell list is shorter than its cells need");
        const auto n = static_cast<size_t>(flat[at]);
        out.connectivity.insert(out.connectivity.end(), flat.begin() + static_cast<std::ptrdiff_t>(at + 1),
                                flat.begin() + static_cast<std::ptrdiff_t>(at + 1 + n));
        out.offsets.push_back(static_cast<int64_t>(out.connectivity.size()));
        at += n + 1;
    }
    return out;
}

// Cells from version 5: an OFFSETS and a CONNECTIVITY array.
VtkCells OffsetCells(LegacyFile& file, int64_t offsets, int64_t size, bool binary) {
    VtkCells out;
    for (const char* name : {"OFFSETS", "CONNECTIVITY"}) {
        const std::string keyword = file.Word();
        if (keyword != name) file.Fail(std::string("expected ") + name + ", found \"" + keyword.substr(0, 20) + "\"");
        const std::string type = file.Word();
        file.SkipRestOfLine();
        auto values = file.Numbers<int64_t>(keyword == "OFFSETS" ? offsets : size, type, binary);
        (keyword == "OFFSETS" ? out.offsets : out.connectivity) = std::move(values);
    }
    if (out.offsets.size() == 1 && out.connectivity.empty()) out.offsets.clear();
    return out;
}

bool IsSection(const std::string& word) {
    for (const char* section : {"POINTS", "VERTICES", "LINES", "POLYGONS", "TRIANGLE_STRIPS", "POINT_DATA",
                                "CELL_DATA", "FIELD", "METADATA"})
        if (word == section) return true;
    return false;
}

}  // namespace

VtkPolyData ReadVtkLegacyPolyData(const std::string& path) {
    LegacyFile file(path);
    const std::string magic = file.Line();
    if (magic.rfind("# vtk DataFile Version", 0) != 0)
        file.Fail("is not a VTK file: it does not start with \"# vtk DataFile Version\"");
    const double version = std::atof(magic.c_str() + 22);
    file.Line();  // title
    const std::string encoding = file.Word();
    if (encoding != "ASCII" && encoding != "BINARY")
        file.Fail("gives its encoding as \"" + encoding.substr(0, 20) + "\", not ASCII or BINARY");
    const bool binary = encoding == "BINARY";
    if (file.Word() != "DATASET") file.Fail("has no DATASET line");
    const std::string kind = file.Word();
    if (kind != "POLYDATA")
        file.Fail("holds a " + kind + " dataset; meshes are read from POLYDATA (surfaces, as segmentation tools "
                  "export them); volumes from NIfTI, NRRD, MetaImage, MGH or DICOM");

    VtkPolyData data;
    while (!file.AtEnd()) {
        const std::string keyword = file.Word();
        if (keyword == "POINTS") {
            const int64_t count = file.Count();
            const std::string type = file.Word();
            file.SkipRestOfLine();
            data.points = file.Numbers<double>(count * 3, type, binary);
        } else if (keyword == "VERTICES" || keyword == "LINES" || keyword == "POLYGONS" ||
                   keyword == "TRIANGLE_STRIPS") {
            const int64_t first = file.Count(), second = file.Count();
            file.SkipRestOfLine();
            VtkCells cells = version >= 5.0 ? OffsetCells(file, first, second, binary)
                                            : CountedCells(file, first, second, binary);
            VtkCells& slot = keyword == "VERTICES" ? data.verts
                           : keyword == "LINES"    ? data.lines
                           : keyword == "POLYGONS" ? data.polys
                                                   : data.strips;
            slot = std::move(cells);
        } else if (keyword == "METADATA") {
            // Information about the array before it, up to the next section.
            file.SkipRestOfLine();
            while (!file.AtEnd() && !IsSection(file.Peek())) file.SkipRestOfLine();
        } else if (keyword == "POINT_DATA" || keyword == "CELL_DATA" || keyword == "FIELD") {
            break;
        } else {
            file.Fail("holds an unknown section \"" + keyword.substr(0, 30) + "\"");
        }
    }
    return data;
}

}  // namespace zrio
