#pragma once

#include <string>

#include <qor/transport/http.hpp>

namespace qor::viewer {

/// The viewer's files as the server hands them to a browser: `resolve` picks the file, this
/// reads it from the folder. Holds no state but the folder, so it may answer from any thread.
class Site {
  public:
    /// Serves the files under `folder` (which holds index.html).
    explicit Site(std::string folder);

    /// The answer to one plain HTTP request: the file, or 404/400/405 with a short text.
    transport::HttpResponse answer(const transport::HttpRequest& request) const;

    const std::string& folder() const { return folder_; }

  private:
    std::string folder_;
};

/// The viewer folder shipped with the server: "viewer" beside the executable (the build
/// tree), else "share/qor_sdk_cpp/viewer" under its prefix (an installed tree). Empty when
/// neither holds index.html.
std::string find_viewer_folder(const std::string& executable_folder);

}  // namespace qor::viewer
