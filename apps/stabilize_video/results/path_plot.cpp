// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/path_plot.h"

#include <plplot/plplot.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>

namespace apps {

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

// PLplot's palette 0, as set below.
enum Colour { BACKGROUND, INK, GRID, SHAKY, STEADY, COLOURS };
constexpr PLINT RED[COLOURS] = {255, 40, 215, 213, 0};
constexpr PLINT GREEN[COLOURS] = {255, 40, 215, 94, 114};
constexpr PLINT BLUE[COLOURS] = {255, 40, 215, 0, 178};

const char* device_for(const std::string& ending) {
    return ending == "svg" ? "svgcairo" : "pngcairo";
}

std::string ending(const std::string& path) {
    const std::size_t dot = path.find_last_of('.');
    std::string text = dot == std::string::npos ? "" : path.substr(dot + 1);
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// # starts an escape sequence of PLplot.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '#') {
            result += '#';
        }
        result += c;
    }
    return result;
}

// Margins of the panels, in parts of the page.
constexpr double LEFT = 0.10, RIGHT = 0.97, TOP = 0.885, BOTTOM = 0.07, GAP = 0.025;

struct Panel {
    const char* label;
    double (*value)(const CameraView&);
};
constexpr Panel PANELS[] = {
    {"to the right [pixels]", [](const CameraView& view) { return view.x; }},
    {"down [pixels]", [](const CameraView& view) { return view.y; }},
    {"clockwise [degrees]", [](const CameraView& view) { return view.angle * DEGREES; }},
};

// What a panel shows; the axis includes `low` and `high`.
struct Graph {
    const char* label;
    std::vector<PLFLT> shaky;  // empty: there is one line only
    std::vector<PLFLT> steady;
    double low, high;
};

// A panel of values beside the path, unless they are all the same.
void add_if_changing(std::vector<Graph>& graphs, const char* label,
                     const std::vector<double>& values) {
    const auto [least, most] = std::minmax_element(values.begin(), values.end());
    if (!values.empty() && *most > *least) {
        graphs.push_back({label, {}, values, *least, *most});
    }
}

std::vector<PLFLT> values(const std::vector<CameraView>& views, const Panel& panel) {
    std::vector<PLFLT> result;
    result.reserve(views.size());
    for (const CameraView& view : views) {
        result.push_back(panel.value(view));
    }
    return result;
}

void draw_line(const std::vector<PLFLT>& times, const std::vector<PLFLT>& line, Colour colour,
               double width) {
    plcol0(colour);
    plwidth(width);
    plline(static_cast<PLINT>(times.size()), times.data(), line.data());
}

// An entry of the legend at x, in parts of the page's width.
void draw_sample(double x, const char* text, Colour colour, double width) {
    constexpr double Y = 0.907;
    const PLFLT xs[2] = {x, x + 0.035};
    const PLFLT ys[2] = {Y, Y};
    plcol0(colour);
    plwidth(width);
    plline(2, xs, ys);
    plcol0(INK);
    plptex(x + 0.043, Y, 1, 0, 0, text);
}

}  // namespace

void PathPlot::add(const FollowedFrame& point) {
    shaky_.push_back(point.shaky);
    steady_.push_back(point.steady);
    crops_.push_back(static_cast<double>(point.report.crop));
    readouts_.push_back(static_cast<double>(point.report.readout));
}

bool PathPlot::knows(const std::string& path) {
    return ending(path) == "png" || ending(path) == "svg";
}

void PathPlot::check_available(const std::string& path) {
    constexpr int MOST = 100;
    const char* menu[MOST] = {};
    const char* names[MOST] = {};
    const char** menu_address = menu;
    const char** names_address = names;
    int count = MOST;
    plgDevs(&menu_address, &names_address, &count);
    const std::string wanted = device_for(ending(path));
    // PLplot exits when it is asked for a device that it does not have.
    if (std::find(names, names + std::min(count, MOST), wanted) == names + std::min(count, MOST)) {
        throw video_io::OutputError("cannot draw " + path + ": PLplot has no device " + wanted +
                                    " (Debian: plplot-driver-cairo)");
    }
}

std::vector<double> PathPlot::times() const {
    std::vector<double> times;
    for (std::size_t i = 0; i < shaky_.size(); ++i) {
        times.push_back(static_cast<double>(i) / (frame_rate_ > 0 ? frame_rate_ : 1));
    }
    return times;
}

void PathPlot::draw_panels(const std::vector<double>& times) const {
    const double last = times.size() > 1 ? times.back() : 1;
    std::vector<Graph> graphs;
    for (const Panel& panel : PANELS) {
        graphs.push_back({panel.label, values(shaky_, panel), values(steady_, panel), 0, 0});
    }
    add_if_changing(graphs, "shown part", crops_);
    add_if_changing(graphs, "readout", readouts_);
    const auto count = static_cast<double>(graphs.size());
    const double height = (TOP - BOTTOM - (count - 1) * GAP) / count;
    double top = TOP;
    for (const Graph& graph : graphs) {
        double low = graph.low;
        double high = graph.high;
        for (const auto* line : {&graph.shaky, &graph.steady}) {
            for (const double value : *line) {
                low = std::min(low, value);
                high = std::max(high, value);
            }
        }
        const double margin = std::max(0.05 * (high - low), 1e-3);
        const bool lowest = &graph == &graphs.back();
        plvpor(LEFT, RIGHT, top - height, top);
        plwind(0, last, low - margin, high + margin);
        plschr(0, 0.65);
        plwidth(1);
        plcol0(GRID);
        plbox("g", 0, 0, "g", 0, 0);
        plcol0(INK);
        plbox(lowest ? "bcnst" : "bcst", 0, 0, "bcnstv", 0, 0);
        plmtex("l", 5.0, 0.5, 0.5, graph.label);
        if (lowest) {
            plmtex("b", 3.0, 0.5, 0.5, frame_rate_ > 0 ? "time [seconds]" : "frame");
        }
        if (!graph.shaky.empty()) {
            draw_line(times, graph.shaky, SHAKY, 1.2);
        }
        draw_line(times, graph.steady, STEADY, 2.5);
        top -= height + GAP;
    }
}

void PathPlot::draw_texts() const {
    plvpor(0, 1, 0, 1);
    plwind(0, 1, 0, 1);
    plcol0(INK);
    plschr(0, 0.9);
    plptex(LEFT, 0.97, 1, 0, 0, escaped(title_).c_str());
    plschr(0, 0.55);  // the longest summary just fits
    plptex(LEFT, 0.935, 1, 0, 0, escaped(summary_).c_str());
    plschr(0, 0.65);
    draw_sample(0.56, "shaky, as filmed", SHAKY, 1.2);
    draw_sample(0.76, "steady, as corrected", STEADY, 2.5);
}

void PathPlot::draw(const std::string& to, const std::string& name) const {
    const std::vector<double> times = this->times();
    plsdev(device_for(ending(name)));
    plsfnam(to.c_str());
    plspage(0, 0, 1200, 1050, 0, 0);
    plscmap0(RED, GREEN, BLUE, COLOURS);
    plsfont(PL_FCI_SANS, PL_FCI_UPRIGHT, PL_FCI_MEDIUM);
    plinit();
    pladv(0);
    draw_panels(times);
    draw_texts();
    plend();

    struct stat info {};
    if (stat(to.c_str(), &info) != 0 || info.st_size == 0) {
        throw video_io::OutputError("cannot write " + name + ": the plot cannot be drawn");
    }
}

}  // namespace apps
