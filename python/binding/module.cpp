// _zrslice: the compiled half of the Python package. It loads the plug-in as
// `zrslice` does, builds volumes and meshes from numpy arrays or files with
// the host library, and runs request documents (the request-file format, as
// JSON text) with Python's lock released. The Python half (zrslice/) gives it
// a Python face.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <stdexcept>

#include "frame.h"
#include "held_objects.h"
#include "host/plugin_loader.h"
#include "io/grid_placement.h"
#include "io/input_error.h"
#include "io/slab_pick.h"

namespace py = pybind11;
using zrpython::Frame;
using zrpython::HeldObject;

namespace {

using Matrix4 = std::array<std::array<double, 4>, 4>;  // rows

Matrix4 Rows(const glm::dmat4& m) {
    Matrix4 rows{};
    for (int row = 0; row < 4; ++row)
        for (int col = 0; col < 4; ++col) rows[row][col] = m[col][row];
    return rows;
}

glm::dmat4 FromRows(const Matrix4& rows) {
    glm::dmat4 m(0.0);
    for (int row = 0; row < 4; ++row)
        for (int col = 0; col < 4; ++col) m[col][row] = rows[row][col];
    return m;
}

zrio::StoredType StoredTypeOf(const py::dtype& dtype) {
    const char kind = dtype.kind();
    const auto size = dtype.itemsize();
    if (kind == 'i' || kind == 'u') {
        const bool isSigned = kind == 'i';
        switch (size) {
            case 1: return isSigned ? zrio::StoredType::Int8 : zrio::StoredType::UInt8;
            case 2: return isSigned ? zrio::StoredType::Int16 : zrio::StoredType::UInt16;
            case 4: return isSigned ? zrio::StoredType::Int32 : zrio::StoredType::UInt32;
            case 8: return isSigned ? zrio::StoredType::Int64 : zrio::StoredType::UInt64;
        }
    }
    if (kind == 'f' && size == 4) return zrio::StoredType::Float32;
    if (kind == 'f' && size == 8) return zrio::StoredType::Float64;
    throw std::invalid_argument("voxels of type " + py::str(static_cast<const py::handle&>(dtype)).cast<std::string>() +
                                " cannot be a volume (int8, uint8, int16, uint16, int32, uint32, int64, uint64, "
                                "float32 or float64)");
}

std::shared_ptr<HeldObject> VolumeFromArray(const py::array& voxels, std::array<int, 3> dims,
                                            std::array<double, 3> spacing, std::array<double, 3> origin,
                                            std::array<std::array<double, 3>, 3> direction, const std::string& units) {
    if (voxels.ndim() != 1 || !(voxels.flags() & py::array::c_style))
        throw std::invalid_argument("voxels must be one contiguous run, x fastest");
    const zrio::StoredType type = StoredTypeOf(voxels.dtype());
    if (!voxels.dtype().attr("isnative").cast<bool>()) throw std::invalid_argument("voxels must be in this machine's byte order");
    zrobjects::VolumeGeometry geometry;
    for (int k = 0; k < 3; ++k) {
        geometry.spacing[k] = spacing[k];
        geometry.origin[k] = origin[k];
        for (int col = 0; col < 3; ++col) geometry.direction[col][k] = direction[k][col];
    }
    const glm::ivec3 size(dims[0], dims[1], dims[2]);
    if (static_cast<uint64_t>(voxels.size()) !=
        static_cast<uint64_t>(std::max(size.x, 0)) * std::max(size.y, 0) * std::max(size.z, 0))
        throw std::invalid_argument("voxel count does not match the dimensions");
    return zrpython::VolumeFromVoxels(voxels.data(), type, size, geometry, units);
}

std::shared_ptr<HeldObject> MeshFromArrays(const py::array_t<float, py::array::c_style>& positions,
                                           const std::optional<py::array_t<uint32_t, py::array::c_style>>& indices,
                                           const std::optional<py::array_t<float, py::array::c_style>>& normals) {
    zrobjects::MeshArrays arrays;
    arrays.positions.assign(positions.data(), positions.data() + positions.size());
    if (indices) {
        arrays.indices.assign(indices->data(), indices->data() + indices->size());
        arrays.topology = zrenums::EzrPrimitiveTopology_Triangles;
    } else {
        arrays.topology = 3;  // a point set
    }
    if (normals) arrays.normals.assign(normals->data(), normals->data() + normals->size());
    py::gil_scoped_release release;  // the hierarchy of a large mesh takes a while
    return zrpython::MeshFromArrays(std::move(arrays));
}

// Voxel to LPS of a 4 x 4 affine (rows) as spacing, origin and direction rows,
// by the rule the file readers place grids with.
py::tuple GeometryFromAffine(const Matrix4& rows) {
    std::vector<std::string> notes;
    const zrobjects::VolumeGeometry g = zrio::GeometryFromMatrix(FromRows(rows), "affine", notes);
    std::array<std::array<double, 3>, 3> direction{};
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 3; ++col) direction[row][col] = g.direction[col][row];
    return py::make_tuple(std::array<double, 3>{g.spacing.x, g.spacing.y, g.spacing.z},
                          std::array<double, 3>{g.origin.x, g.origin.y, g.origin.z}, direction, notes);
}

const char* VoxelTypeName(const zrobjects::VolumeData& data) {
    if (data.voxelType == zrobjects::MakeDataType<unsigned char>()) return "uint8";
    if (data.voxelType == zrobjects::MakeDataType<char>()) return "int8";
    if (data.voxelType == zrobjects::MakeDataType<unsigned short>()) return "uint16";
    if (data.voxelType == zrobjects::MakeDataType<short>()) return "int16";
    if (data.voxelType == zrobjects::MakeDataType<float>()) return "float32";
    return "?";
}

std::unique_ptr<Frame> Render(const std::string& documentText, const std::string& name, const std::string& baseDirectory,
                              const std::map<std::string, std::shared_ptr<HeldObject>>& held,
                              zrio::PluginSession& plugin) {
    const nlohmann::json document = nlohmann::json::parse(documentText);
    py::gil_scoped_release release;
    return zrpython::RenderDocument(document, name, baseDirectory, held, plugin);
}

py::array_t<uint8_t> Picture(const Frame& frame) {
    const zrio::RgbaImage& picture = frame.output.picture;
    py::array_t<uint8_t> out({picture.height, picture.width, 4});
    std::memcpy(out.mutable_data(), picture.pixels.data(), picture.pixels.size());
    return out;
}

py::object Values(const Frame& frame) {
    if (!frame.output.values) return py::none();
    const zrio::GreyImage16& values = *frame.output.values;
    py::array_t<uint16_t> out({values.height, values.width});
    std::memcpy(out.mutable_data(), values.values.data(), values.values.size() * sizeof(uint16_t));
    return out;
}

py::object Pick(const Frame& frame, double x, double y, size_t request) {
    if (request >= frame.file.requests.size())
        throw std::invalid_argument("request " + std::to_string(request) + " is not one of the " +
                                    std::to_string(frame.file.requests.size()) + " requests");
    const std::optional<zrio::SlabPick> pick = zrio::PickSlabSample(frame.file, frame.scene, request, {x, y});
    if (!pick) return py::none();
    py::dict out;
    out["volume"] = pick->volume;
    out["world"] = std::array<double, 3>{pick->world.x, pick->world.y, pick->world.z};
    out["voxel"] = std::array<double, 3>{pick->voxel.x, pick->voxel.y, pick->voxel.z};
    out["layer"] = pick->layer;
    out["layer_count"] = pick->layerCount;
    out["value"] = pick->value;
    return out;
}

}  // namespace

PYBIND11_MODULE(_zrslice, m) {
    m.doc() = "The compiled half of zrslice: plug-in, volumes, meshes and request runs.";

    static py::exception<zrio::InputError> error(m, "Error", PyExc_ValueError);
    static py::exception<zrobjects::PluginLoadError> pluginError(m, "PluginError", PyExc_RuntimeError);
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (const zrio::InputError& e) {
            error(e.Line().c_str());
        } catch (const zrobjects::PluginLoadError& e) {
            pluginError(e.what());
        } catch (const std::invalid_argument& e) {
            error(e.what());
        } catch (const std::bad_alloc&) {
            PyErr_SetString(PyExc_MemoryError, "out of memory");
        }
    });

    m.def("plugin_file_name", [] { return std::string(zrobjects::PluginFileName()); });

    py::class_<zrio::PluginSession>(m, "Plugin")
        .def(py::init<const std::string&>(), py::arg("path"));

    py::class_<HeldObject, std::shared_ptr<HeldObject>>(m, "Held")
        .def_property_readonly("is_volume", [](const HeldObject& h) { return h.volume.has_value(); })
        .def_property_readonly("shape",
                               [](const HeldObject& h) {
                                   const glm::ivec3 d = h.volume->volume->GetVolumeData()->dims;
                                   return std::array<int, 3>{d.x, d.y, d.z};
                               })
        .def_property_readonly("voxel_type",
                               [](const HeldObject& h) { return VoxelTypeName(*h.volume->volume->GetVolumeData()); })
        .def_property_readonly("value_offset", [](const HeldObject& h) { return h.volume->values.offset; })
        .def_property_readonly("is_float", [](const HeldObject& h) { return h.volume->values.isFloat; })
        .def_property_readonly("units", [](const HeldObject& h) { return h.volume->values.units; })
        .def_property_readonly("value_range",
                               [](const HeldObject& h) { return std::make_pair(h.volume->values.min, h.volume->values.max); })
        // Measured when asked for: a pass over every voxel.
        .def_property_readonly("percentiles",
                               [](const HeldObject& h) {
                                   const glm::dvec2 p = zrio::MeasurePercentiles(*h.volume->volume, h.volume->values.offset);
                                   return std::make_pair(p.x, p.y);
                               })
        .def_property_readonly("window",
                               [](const HeldObject& h) -> py::object {
                                   if (!h.volume->window) return py::none();
                                   return py::make_tuple(h.volume->window->x, h.volume->window->y);
                               })
        .def_property_readonly("warnings", [](const HeldObject& h) { return h.volume->warnings; })
        .def_property_readonly("affine",
                               [](const HeldObject& h) {
                                   return Rows(glm::dmat4(h.volume->volume->GetMatrixOS2RSf()));
                               })
        .def_property_readonly("primitive_count",
                               [](const HeldObject& h) {
                                   const auto& mesh = static_cast<const zrobjects::ZrVObjectPrimitive&>(*h.object);
                                   return mesh.GetPrimitiveData()->primitiveCount;
                               })
        .def_property_readonly("is_point_set", [](const HeldObject& h) {
            const auto& mesh = static_cast<const zrobjects::ZrVObjectPrimitive&>(*h.object);
            return mesh.GetPrimitiveData()->topology == 3;
        });

    m.def("volume_from_array", &VolumeFromArray, py::arg("voxels"), py::arg("dims"), py::arg("spacing"),
          py::arg("origin"), py::arg("direction"), py::arg("units"));
    m.def(
        "object_from_description",
        [](const std::string& description, const std::string& baseDirectory) {
            const nlohmann::json parsed = nlohmann::json::parse(description);
            py::gil_scoped_release release;
            return zrpython::ObjectFromDescription(parsed, baseDirectory);
        },
        py::arg("description"), py::arg("base_directory"));
    m.def("mesh_from_arrays", &MeshFromArrays, py::arg("positions"), py::arg("indices"), py::arg("normals"));
    m.def("geometry_from_affine", &GeometryFromAffine, py::arg("affine"));

    py::class_<Frame>(m, "Frame")
        .def_property_readonly("picture", &Picture)
        .def_property_readonly("values", &Values)
        .def_property_readonly("lists", [](const Frame& f) { return f.output.lists.dump(); })
        .def_property_readonly("warnings", [](const Frame& f) { return f.output.warnings; })
        .def_property_readonly("pixel_to_world", [](const Frame& f) { return Rows(f.pixelToWorld); })
        .def("pick", &Pick, py::arg("x"), py::arg("y"), py::arg("request"));

    m.def("render", &Render, py::arg("document"), py::arg("name"), py::arg("base_directory"), py::arg("held"),
          py::arg("plugin"));
}
