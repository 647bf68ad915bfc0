#pragma once

#include <string>
#include <vector>

namespace demo {

/// One line of a chart: its name and its (x, y) points.
struct Series {
    std::string name;
    std::vector<std::pair<double, double>> points;
};

/// A line chart as a standalone SVG document: axes with ticks, one coloured polyline per
/// series and a legend. Empty series are left out; with no points at all the axes span 0..1.
std::string svg_line_chart(const std::string& title, const std::string& x_label,
                           const std::string& y_label, const std::vector<Series>& series);

}  // namespace demo
