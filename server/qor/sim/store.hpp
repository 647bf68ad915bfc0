#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <qor/sim/meshes.hpp>
#include <qor/sim/scene.hpp>

namespace qor::sim {

/// A scene as saved: when, its components, and the meshes its mesh bodies use.
struct SavedScene {
    double saved_at = 0;  ///< Unix time in seconds
    std::vector<Component> components;
    std::map<int64_t, Mesh> meshes;
};

/// Settings that outlive the server process.
struct Settings {
    int persistence_mode = 0;
    std::map<std::string, std::string> properties;
};

/// The server's data folder: one "<name>.scene" file per saved scene and "settings.qor" for
/// the settings. Every file is replaced atomically, so a crash leaves the old version or the
/// new one. Not thread-safe: the owner serialises access.
class Store {
  public:
    /// Uses `folder`, creating it (and its parents) when missing; throws when it cannot.
    /// Temporary files left by a save whose process died are removed.
    explicit Store(std::string folder);

    /// True for names usable as a file name: 1 to 128 of A-Z a-z 0-9 _ - . not starting with a dot.
    static bool valid_name(const std::string& name);

    /// Saves (replacing) a scene under `name`, stamped with the current time.
    void save_scene(const std::string& name, const std::vector<Component>& components,
                    const std::map<int64_t, Mesh>& meshes);
    /// Reads a scene; false when none is saved under `name`; throws when the file is damaged.
    bool load_scene(const std::string& name, SavedScene& out) const;
    /// Deletes a saved scene; false when there was none.
    bool remove_scene(const std::string& name);
    /// Deletes every saved scene; returns how many there were.
    int remove_all_scenes();
    /// Saved scenes with their save times, by name.
    std::vector<std::pair<std::string, double>> list() const;

    /// The saved settings, or defaults when none were saved.
    Settings load_settings() const;
    /// Saves the settings.
    void save_settings(const Settings& settings);

    /// The folder in use.
    const std::string& folder() const { return folder_; }

  private:
    std::string scene_path(const std::string& name) const;
    void remove_stale_temporaries() const;
    std::string folder_;
};

}  // namespace qor::sim
