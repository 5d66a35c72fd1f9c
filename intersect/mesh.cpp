// OBJ through tinyobjloader (Float64 build), spheres and boxes.
#include "intersect/mesh.h"

#include <tiny_obj_loader.h>

#include <cmath>
#include <numbers>
#include <sstream>

namespace quorv::mesh {

bool ReadObj(const std::string& text, Mesh& mesh, std::string& error) {
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    std::istringstream in(text);
    // No triangulation by the reader: quads stay quads, larger faces are fanned below.
    if (!tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, &in, nullptr, false)) {
        error = err.empty() ? "Not an OBJ file" : err;
        while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) error.pop_back();
        return false;
    }
    mesh = {};
    const size_t n = attrib.vertices.size() / 3;
    mesh.points.resize(n);
    for (size_t i = 0; i < n; ++i)
        mesh.points[i] = {attrib.vertices[3 * i], attrib.vertices[3 * i + 1],
                          attrib.vertices[3 * i + 2]};
    for (const tinyobj::shape_t& s : shapes) {
        size_t base = 0;
        for (size_t f = 0; f < s.mesh.num_face_vertices.size(); ++f) {
            const size_t corners = s.mesh.num_face_vertices[f];
            if (corners < 3) {
                error = "Face " + std::to_string(f + 1) + " of group \"" + s.name + "\" has " +
                        std::to_string(corners) + " corners";
                return false;
            }
            std::vector<Int32> idx(corners);
            for (size_t k = 0; k < corners; ++k) {
                const int v = s.mesh.indices[base + k].vertex_index;
                if (v < 0 || static_cast<size_t>(v) >= n) {
                    error = "Face " + std::to_string(f + 1) + " of group \"" + s.name +
                            "\" refers to a point that does not exist";
                    return false;
                }
                idx[k] = v;
            }
            base += corners;
            if (corners == 3) {
                mesh.polygons.push_back({idx[0], idx[1], idx[2], idx[2]});
            } else if (corners == 4) {
                mesh.polygons.push_back({idx[0], idx[1], idx[2], idx[3]});
            } else {
                for (size_t k = 1; k + 1 < corners; ++k)
                    mesh.polygons.push_back({idx[0], idx[k], idx[k + 1], idx[k + 1]});
            }
        }
    }
    return true;
}

Mesh MakeSphere(Int rings, bool quads) {
    if (rings < 2) rings = 2;
    const Int segments = 2 * rings;
    Mesh m;
    const Float64 pi = std::numbers::pi;
    m.points.push_back({0.0, 0.0, -1.0});  // south pole
    for (Int r = 1; r < rings; ++r) {
        const Float64 theta = pi * Float64(r) / Float64(rings) - pi / 2;
        for (Int s = 0; s < segments; ++s) {
            const Float64 phi = 2.0 * pi * Float64(s) / Float64(segments);
            m.points.push_back({std::cos(theta) * std::cos(phi), std::cos(theta) * std::sin(phi),
                                std::sin(theta)});
        }
    }
    m.points.push_back({0.0, 0.0, 1.0});  // north pole
    const Int32 north = static_cast<Int32>(m.points.size() - 1);
    auto at = [&](Int r, Int s) {
        return static_cast<Int32>(1 + (r - 1) * segments + s % segments);
    };
    for (Int s = 0; s < segments; ++s) m.polygons.push_back({0, at(1, s + 1), at(1, s), at(1, s)});
    for (Int r = 1; r + 1 < rings; ++r) {
        for (Int s = 0; s < segments; ++s) {
            const Int32 a = at(r, s), b = at(r, s + 1), c = at(r + 1, s + 1), d = at(r + 1, s);
            if (quads) {
                m.polygons.push_back({a, b, c, d});
            } else {
                m.polygons.push_back({a, b, c, c});
                m.polygons.push_back({a, c, d, d});
            }
        }
    }
    for (Int s = 0; s < segments; ++s)
        m.polygons.push_back({north, at(rings - 1, s), at(rings - 1, s + 1), at(rings - 1, s + 1)});
    return m;
}

Mesh MakeBox() {
    Mesh m;
    for (int i = 0; i < 8; ++i)
        m.points.push_back({(i & 1) ? 1.0 : -1.0, (i & 2) ? 1.0 : -1.0, (i & 4) ? 1.0 : -1.0});
    // Counter-clockwise seen from outside.
    m.polygons = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                  {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    return m;
}

}  // namespace quorv::mesh
