// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/RunReport.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "interface/SuperResolutionContext.h"
#include "tools/kelvo-sr/ImageFiles.h"

namespace kelvo::tools {

namespace {

constexpr int kWindowSize = 5;

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

}  // namespace

ResultRecord recordLastPass(const SuperResolver& resolver,
                            const std::vector<std::string>& windowFiles, int referenceIndex,
                            int status, double passMilliseconds) {
    ResultRecord record;
    record.status = status;
    record.passMilliseconds = passMilliseconds;
    const int used = std::min<int>(kWindowSize, static_cast<int>(windowFiles.size()));
    const auto* engine = kelvo::interface::engineOf(resolver.contextHandle());
    std::vector<cv::Point2f> shifts;
    std::vector<cv::Mat_<unsigned char>> masks;
    engine->getCompleteShifts(shifts);
    engine->getMasks(masks);
    for (int i = 0; i < used; ++i) {
        FrameRecord frame;
        frame.file = windowFiles[windowFiles.size() - used + i];
        if (i < static_cast<int>(shifts.size())) {
            frame.shiftX = shifts[i].x;
            frame.shiftY = shifts[i].y;
        }
        if (i < static_cast<int>(masks.size())) {
            frame.validFraction = static_cast<float>(cv::countNonZero(masks[i])) /
                                  static_cast<float>(masks[i].total());
        }
        record.frames.push_back(frame);
    }
    record.reference = record.frames[std::max(used - referenceIndex - 1, 0)].file;
    return record;
}

nlohmann::json toJson(const ResultRecord& record) {
    nlohmann::json frames = nlohmann::json::array();
    for (const FrameRecord& frame : record.frames) {
        frames.push_back({{"file", frame.file},
                          {"shift", {frame.shiftX, frame.shiftY}},
                          {"valid_fraction", frame.validFraction}});
    }
    return {{"result", record.result},
            {"outputs", record.outputs},
            {"reference", record.reference},
            {"frames", frames},
            {"status", record.status},
            {"status_text", SuperResolver::describe(record.status)},
            {"pass_ms", record.passMilliseconds}};
}

void printRecord(std::ostream& out, const ResultRecord& record) {
    char line[512];
    out << "frames: " << record.frames.size() << ", reference " << fileName(record.reference)
        << "\n";
    out << "  frame                               shift x   shift y   valid\n";
    for (const FrameRecord& frame : record.frames) {
        std::snprintf(line, sizeof(line), "  %-32s %9.3f %9.3f %6.1f%%%s\n",
                      fileName(frame.file).c_str(), frame.shiftX, frame.shiftY,
                      100.0 * frame.validFraction,
                      frame.file == record.reference ? "  reference" : "");
        out << line;
    }
    std::snprintf(line, sizeof(line), "pass: %s, %.1f ms\n",
                  SuperResolver::describe(record.status).c_str(), record.passMilliseconds);
    out << line;
}

nlohmann::json toJson(const RunRecord& run) {
    const ImageMeaning meaning = meaningOf(run.values);
    nlohmann::json results = nlohmann::json::array();
    for (const ResultRecord& result : run.results) {
        results.push_back(toJson(result));
    }
    nlohmann::json skipped = nlohmann::json::array();
    for (const auto& [file, reason] : run.skipped) {
        skipped.push_back({{"file", file}, {"reason", reason}});
    }
    return {{"software", "kelvo-sr"},   {"version", toolVersion()}, {"command", run.command},
            {"values", meaning.values}, {"unit", meaning.unit},     {"results", results},
            {"skipped", skipped}};
}

void writeJson(const std::string& path, const RunRecord& run) {
    std::ofstream file(path);
    file << toJson(run).dump(2) << "\n";
    if (!file.flush()) {
        throw std::runtime_error("Cannot write '" + path + "': check the folder.");
    }
}

}  // namespace kelvo::tools
