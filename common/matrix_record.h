// The sixteen-float matrix record the kernels take: elements 0-3 are the
// coefficients of output x (x, y, z, constant), 4-7 of y, 8-11 of z, 12-15 of w.
// It is the row-major transpose of a column-major glm matrix; build it only with
// ToMatrixRecord.
#pragma once

#include <glm/glm.hpp>

namespace zrcommon {

struct Matrix16 {
    float m[16] = {};
};

inline Matrix16 ToMatrixRecord(const glm::mat4& matrix) {
    Matrix16 record;
    for (int row = 0; row < 4; ++row)
        for (int col = 0; col < 4; ++col) record.m[row * 4 + col] = matrix[col][row];
    return record;
}

inline glm::mat4 FromMatrixRecord(const Matrix16& record) {
    glm::mat4 matrix;
    for (int row = 0; row < 4; ++row)
        for (int col = 0; col < 4; ++col) matrix[col][row] = record.m[row * 4 + col];
    return matrix;
}

// One output row of the record applied to (p, 1), summed left to right.
inline float RecordRow(const Matrix16& r, int row, const glm::vec3& p) {
    const float* c = r.m + row * 4;
    return c[0] * p.x + c[1] * p.y + c[2] * p.z + c[3];
}

// The record applied to (p, 1), divided by w, in single precision.
inline glm::vec3 TransformPoint(const Matrix16& r, const glm::vec3& p) {
    const float w = RecordRow(r, 3, p);
    return glm::vec3(RecordRow(r, 0, p) / w, RecordRow(r, 1, p) / w, RecordRow(r, 2, p) / w);
}

// The same in double precision, rounded to single precision at the end.
inline glm::vec3 TransformPointDouble(const Matrix16& r, const glm::vec3& p) {
    const double x = p.x, y = p.y, z = p.z;
    double out[4];
    for (int row = 0; row < 4; ++row) {
        const float* c = r.m + row * 4;
        out[row] = double(c[0]) * x + double(c[1]) * y + double(c[2]) * z + double(c[3]);
    }
    return glm::vec3(float(out[0] / out[3]), float(out[1] / out[3]), float(out[2] / out[3]));
}

}  // namespace zrcommon
