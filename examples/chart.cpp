#include "chart.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace demo {

namespace {

std::string escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

std::string number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", v);
    return text;
}

// A tick spacing of 1, 2 or 5 times a power of ten giving about five ticks.
double tick_step(double span) {
    const double raw = span / 5;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0})
        if (m * power >= raw) return m * power;
    return 10 * power;
}

}  // namespace

std::string svg_line_chart(const std::string& title, const std::string& x_label,
                           const std::string& y_label, const std::vector<Series>& series) {
    const double width = 720, height = 420, left = 64, right = 150, top = 40, bottom = 50;
    double x0 = std::numeric_limits<double>::infinity(), x1 = -x0, y0 = x0, y1 = -x0;
    for (const Series& s : series)
        for (const auto& [x, y] : s.points) {
            if (!std::isfinite(x) || !std::isfinite(y)) continue;
            x0 = std::min(x0, x), x1 = std::max(x1, x);
            y0 = std::min(y0, y), y1 = std::max(y1, y);
        }
    if (!(x0 <= x1)) x0 = 0, x1 = 1, y0 = 0, y1 = 1;
    if (x1 - x0 < 1e-12) x1 = x0 + 1;
    if (y1 - y0 < 1e-12) y1 = y0 + 1;
    const double pw = width - left - right, ph = height - top - bottom;
    const auto px = [&](double x) { return left + (x - x0) / (x1 - x0) * pw; };
    const auto py = [&](double y) { return top + ph - (y - y0) / (y1 - y0) * ph; };

    std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(width) +
                      "\" height=\"" + number(height) + "\" font-family=\"sans-serif\" " +
                      "font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    svg += "<text x=\"" + number(width / 2) + "\" y=\"22\" text-anchor=\"middle\" " +
           "font-size=\"15\">" + escaped(title) + "</text>\n";
    for (int axis = 0; axis < 2; ++axis) {
        const double lo = axis == 0 ? x0 : y0, hi = axis == 0 ? x1 : y1;
        const double step = tick_step(hi - lo);
        for (double v = std::ceil(lo / step) * step; v <= hi + step * 1e-9; v += step) {
            const double at = axis == 0 ? px(v) : py(v);
            if (axis == 0)
                svg += "<line x1=\"" + number(at) + "\" y1=\"" + number(top) + "\" x2=\"" +
                       number(at) + "\" y2=\"" + number(top + ph) + "\" stroke=\"#ddd\"/>" +
                       "<text x=\"" + number(at) + "\" y=\"" + number(top + ph + 16) +
                       "\" text-anchor=\"middle\">" + number(v) + "</text>\n";
            else
                svg += "<line x1=\"" + number(left) + "\" y1=\"" + number(at) + "\" x2=\"" +
                       number(left + pw) + "\" y2=\"" + number(at) + "\" stroke=\"#ddd\"/>" +
                       "<text x=\"" + number(left - 6) + "\" y=\"" + number(at + 4) +
                       "\" text-anchor=\"end\">" + number(v) + "</text>\n";
        }
    }
    svg += "<rect x=\"" + number(left) + "\" y=\"" + number(top) + "\" width=\"" + number(pw) +
           "\" height=\"" + number(ph) + "\" fill=\"none\" stroke=\"#333\"/>\n";
    svg += "<text x=\"" + number(left + pw / 2) + "\" y=\"" + number(height - 10) +
           "\" text-anchor=\"middle\">" + escaped(x_label) + "</text>\n";
    svg += "<text transform=\"translate(16 " + number(top + ph / 2) +
           ") rotate(-90)\" text-anchor=\"middle\">" + escaped(y_label) + "</text>\n";

    static const char* const colours[] = {"#d1495b", "#00798c", "#edae49", "#30638e", "#6a4c93"};
    int drawn = 0;
    for (const Series& s : series) {
        if (s.points.empty()) continue;
        const char* colour = colours[drawn % 5];
        svg += "<polyline fill=\"none\" stroke-width=\"2\" stroke=\"" + std::string(colour) +
               "\" points=\"";
        for (const auto& [x, y] : s.points)
            if (std::isfinite(x) && std::isfinite(y)) svg += number(px(x)) + "," + number(py(y)) + " ";
        svg += "\"/>\n";
        const double ly = top + 10 + 20 * drawn;
        svg += "<line x1=\"" + number(left + pw + 12) + "\" y1=\"" + number(ly) + "\" x2=\"" +
               number(left + pw + 36) + "\" y2=\"" + number(ly) + "\" stroke-width=\"2\" stroke=\"" +
               colour + "\"/><text x=\"" + number(left + pw + 42) + "\" y=\"" + number(ly + 4) +
               "\">" + escaped(s.name) + "</text>\n";
        ++drawn;
    }
    return svg + "</svg>\n";
}

}  // namespace demo
