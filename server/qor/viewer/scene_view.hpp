#pragma once

#include <qor/sim/core.hpp>

namespace qor::viewer {

/// The read-only procedure the viewer page calls to learn what to draw.
inline constexpr const char* kSceneProcedure = "qor.viewer.scene";

/// What the viewer draws, in plain map form so that a browser needs no knowledge of the
/// component layouts:
///   {"bodies": [{"id", "shape", "size": [3], "mass", "position": [3], "rotation": [w, x, y, z],
///                "vertices": [x, y, z, ...], "triangles": [a, b, c, ...]}],   (meshes only)
///    "planes": [{"id", "normal": [3], "offset"}],
///    "update": {"states", "step", "details", "time", "state"},
///    "body_state": {"position", "rotation"}}
/// "update" gives the positions of the fields of a published step (and of the simulated time
/// and run state inside its details); "body_state" those of a body's per-step state. Built
/// from the operations GET_SERVER_SCENE and GET_TRIMESH, so it sees what any client sees.
sim::CallResult describe_scene(sim::SimulationCore& core);

}  // namespace qor::viewer
