#include "mesh_builder.h"

#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

#include "bvh_builder.h"

namespace zrobjects {

std::shared_ptr<ZrVObjectPrimitive> MakeMeshPrimitive(MeshArrays arrays) {
    const bool triangles = arrays.topology == zrenums::EzrPrimitiveTopology_Triangles;
    if (!triangles && arrays.topology != zrenums::EzrPrimitiveTopology_Points)
        throw std::invalid_argument("mesh: topology " + std::to_string(arrays.topology) +
                                    " is not supported (2 triangles, 3 point set)");
    if (arrays.positions.empty()) throw std::invalid_argument("mesh: no vertex positions");
    if (arrays.positions.size() % 3 != 0)
        throw std::invalid_argument("mesh: position count " + std::to_string(arrays.positions.size()) +
                                    " is not a multiple of 3");
    const size_t vertexCount = arrays.positions.size() / 3;
    if (vertexCount > static_cast<size_t>(INT32_MAX))
        throw std::invalid_argument("mesh: too many vertices");
    if (!arrays.normals.empty() && arrays.normals.size() != arrays.positions.size())
        throw std::invalid_argument("mesh: " + std::to_string(arrays.normals.size()) + " normal values for " +
                                    std::to_string(vertexCount) + " vertices (need three per vertex)");
    for (size_t i = 0; i < arrays.positions.size(); ++i)
        if (!std::isfinite(arrays.positions[i]))
            throw std::invalid_argument("mesh: vertex " + std::to_string(i / 3) +
                                        " has a position that is not finite");
    if (triangles) {
        if (arrays.indices.empty()) throw std::invalid_argument("mesh: a triangle mesh needs indices");
        if (arrays.indices.size() % 3 != 0)
            throw std::invalid_argument("mesh: index count " + std::to_string(arrays.indices.size()) +
                                        " is not a multiple of 3");
        if (arrays.indices.size() / 3 > static_cast<size_t>(INT32_MAX))
            throw std::invalid_argument("mesh: too many triangles");
        for (size_t i = 0; i < arrays.indices.size(); ++i)
            if (arrays.indices[i] >= vertexCount)
                throw std::invalid_argument("mesh: index " + std::to_string(i) + " (triangle " +
                                            std::to_string(i / 3) + ") is " + std::to_string(arrays.indices[i]) +
                                            ", past the last vertex " + std::to_string(vertexCount - 1));
    }

    AaBbMinMax box;
    box.pos_min = glm::dvec3(arrays.positions[0], arrays.positions[1], arrays.positions[2]);
    box.pos_max = box.pos_min;
    for (size_t v = 0; v < vertexCount; ++v) {
        const glm::dvec3 p(arrays.positions[3 * v], arrays.positions[3 * v + 1], arrays.positions[3 * v + 2]);
        box.pos_min = glm::min(box.pos_min, p);
        box.pos_max = glm::max(box.pos_max, p);
    }

    // The arrays move into the object: one copy of a large mesh, not two.
    auto primitive = std::make_shared<ZrVObjectPrimitive>();
    PrimitiveData& data = *primitive->GetPrimitiveData();
    data.attributes["POSITION"] = VertexAttribute{3, std::move(arrays.positions)};
    if (!arrays.normals.empty()) data.attributes["NORMAL"] = VertexAttribute{3, std::move(arrays.normals)};
    data.topology = arrays.topology;
    if (triangles) {
        data.indices = std::move(arrays.indices);
        data.verticesPerPrimitive = 3;
        data.primitiveCount = static_cast<int32_t>(data.indices.size() / 3);
    } else {
        data.verticesPerPrimitive = 1;
        data.primitiveCount = static_cast<int32_t>(vertexCount);
    }
    data.boundingBox = box;
    primitive->SetPlacement(glm::mat4(1.0f), box);

    if (triangles) {
        // The tree points into the object's own arrays, which stay put for the
        // object's lifetime.
        const std::vector<float>& stored = data.attributes["POSITION"].values;
        primitive->SetBVHTree(BuildBvh(stored.data(), static_cast<int32_t>(vertexCount), data.indices.data(),
                                       data.primitiveCount));
    }
    return primitive;
}

MeshArrays MakeTorusArrays(double majorRadius, double minorRadius, int majorSteps, int minorSteps,
                           const glm::dvec3& centre) {
    if (majorSteps < 3 || minorSteps < 3) throw std::invalid_argument("torus: need at least 3 steps each way");
    if (!(majorRadius > 0.0) || !(minorRadius > 0.0)) throw std::invalid_argument("torus: radii must be positive");
    MeshArrays arrays;
    const size_t points = static_cast<size_t>(majorSteps) * minorSteps;
    arrays.positions.resize(points * 3);
    arrays.normals.resize(points * 3);
    for (int i = 0; i < majorSteps; ++i) {
        const double u = 2.0 * std::numbers::pi * i / majorSteps;
        for (int j = 0; j < minorSteps; ++j) {
            const double v = 2.0 * std::numbers::pi * j / minorSteps;
            const double ring = majorRadius + minorRadius * std::cos(v);
            const glm::dvec3 p = glm::dvec3(ring * std::cos(u), ring * std::sin(u), minorRadius * std::sin(v)) + centre;
            const glm::dvec3 n(std::cos(v) * std::cos(u), std::cos(v) * std::sin(u), std::sin(v));
            const size_t index = static_cast<size_t>(i) * minorSteps + j;
            for (int a = 0; a < 3; ++a) {
                arrays.positions[3 * index + a] = static_cast<float>(p[a]);
                arrays.normals[3 * index + a] = static_cast<float>(n[a]);
            }
        }
    }
    const auto point = [&](int i, int j) {
        return static_cast<uint32_t>((i % majorSteps) * minorSteps + (j % minorSteps));
    };
    arrays.indices.reserve(points * 6);
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i < majorSteps; ++i)
            for (int j = 0; j < minorSteps; ++j) {
                const uint32_t a0 = point(i, j), a1 = point(i + 1, j), a2 = point(i, j + 1),
                               a3 = point(i + 1, j + 1);
                if (pass == 0)
                    arrays.indices.insert(arrays.indices.end(), {a0, a1, a3});
                else
                    arrays.indices.insert(arrays.indices.end(), {a0, a3, a2});
            }
    return arrays;
}

MeshArrays MakeSphereArrays(double radius, int stacks, int slices, const glm::dvec3& centre) {
    if (stacks < 2 || slices < 3) throw std::invalid_argument("sphere: need at least 2 stacks and 3 slices");
    if (!(radius > 0.0)) throw std::invalid_argument("sphere: radius must be positive");
    MeshArrays arrays;
    const auto add = [&](const glm::dvec3& direction) {
        const glm::dvec3 p = centre + radius * direction;
        for (int a = 0; a < 3; ++a) {
            arrays.positions.push_back(static_cast<float>(p[a]));
            arrays.normals.push_back(static_cast<float>(direction[a]));
        }
    };
    add({0.0, 0.0, 1.0});  // north pole, vertex 0
    for (int s = 1; s < stacks; ++s) {
        const double theta = std::numbers::pi * s / stacks;
        for (int k = 0; k < slices; ++k) {
            const double phi = 2.0 * std::numbers::pi * k / slices;
            add({std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)});
        }
    }
    add({0.0, 0.0, -1.0});  // south pole
    const uint32_t south = static_cast<uint32_t>(arrays.positions.size() / 3 - 1);
    const auto ring = [&](int s, int k) { return static_cast<uint32_t>(1 + (s - 1) * slices + (k % slices)); };
    for (int k = 0; k < slices; ++k) arrays.indices.insert(arrays.indices.end(), {0u, ring(1, k), ring(1, k + 1)});
    for (int s = 1; s + 1 < stacks; ++s)
        for (int k = 0; k < slices; ++k) {
            arrays.indices.insert(arrays.indices.end(), {ring(s, k), ring(s + 1, k), ring(s + 1, k + 1)});
            arrays.indices.insert(arrays.indices.end(), {ring(s, k), ring(s + 1, k + 1), ring(s, k + 1)});
        }
    for (int k = 0; k < slices; ++k)
        arrays.indices.insert(arrays.indices.end(), {ring(stacks - 1, k), south, ring(stacks - 1, k + 1)});
    return arrays;
}

}  // namespace zrobjects
