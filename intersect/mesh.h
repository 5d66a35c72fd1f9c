#pragma once
/// Meshes for callers of intersectors: OBJ text read with tinyobjloader, and generated spheres
/// and boxes. Points are Float64 as written in the file; polygons use the intersectors' form
/// (four indices, a triangle when c == d).
#include <string>
#include <vector>

#include "render/frame/intersection.h"

namespace quorv::mesh {

/// Points and polygons of one object.
struct Mesh {
    std::vector<Vector64> points;
    std::vector<IntersectionPolygon> polygons;
};

/// Reads OBJ text (the bytes of a file): the faces of every group. Triangles and quads are
/// kept as they are; a face of more corners is split into a fan of triangles from its first
/// corner; negative indices count back from the last point read. Faces with fewer than three
/// corners, and indices outside the points, are errors. Materials are not read. On failure
/// `error` gets the reason (with the reader's line where it gives one) and false is returned.
bool ReadObj(const std::string& text, Mesh& mesh, std::string& error);

/// A unit sphere at the origin: `rings` bands of latitude (at least 2), 2 * rings segments;
/// the bands at the poles are triangles, the others quads, or two triangles each when `quads`
/// is false. Polygons wind counter-clockwise seen from outside (normals point out).
/// 4 * rings * (rings - 1) triangles without quads: 500 rings give 998000.
Mesh MakeSphere(Int rings, bool quads);

/// The cube [-1, 1]^3 of six quads, normals out.
Mesh MakeBox();

}  // namespace quorv::mesh
