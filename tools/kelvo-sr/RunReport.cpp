// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/RunReport.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tools/kelvo-sr/ImageFiles.h"

namespace kelvo::tools {

namespace {

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

}  // namespace

std::string statusText(int status) {
    return status == -6 ? "a frame was displaced by more than a tenth of the frame height (code -6)"
                        : SuperResolver::describe(status);
}

ResultRecord recordPass(const PassReport& pass, const std::vector<std::string>& windowFiles,
                        int status, double passMilliseconds) {
    ResultRecord record;
    record.status = status;
    record.passStatus = pass.status;
    record.factorEstimate = pass.factorEstimate;
    record.passMilliseconds = passMilliseconds;
    for (std::size_t i = 0; i < pass.frames.size() && i < windowFiles.size(); ++i) {
        record.frames.push_back({windowFiles[i], pass.frames[i].shift.x, pass.frames[i].shift.y,
                                 pass.frames[i].validFraction});
    }
    if (pass.referencePosition >= 0 &&
        pass.referencePosition < static_cast<int>(record.frames.size())) {
        record.reference = record.frames[pass.referencePosition].file;
    }
    return record;
}

nlohmann::json toJson(const ResultRecord& record) {
    nlohmann::json frames = nlohmann::json::array();
    for (const FrameRecord& frame : record.frames) {
        frames.push_back({{"file", frame.file},
                          {"shift", {frame.shiftX, frame.shiftY}},
                          {"valid_fraction", frame.validFraction}});
    }
    return {{"result", record.result},           {"outputs", record.outputs},
            {"reference", record.reference},     {"frames", frames},
            {"status", record.status},           {"status_text", statusText(record.status)},
            {"pass_status", record.passStatus},  {"factor_estimate", record.factorEstimate},
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
    std::snprintf(line, sizeof(line), "pass: %s, factor estimate %.2f, %.1f ms\n",
                  statusText(record.status).c_str(), record.factorEstimate,
                  record.passMilliseconds);
    out << line;
}

nlohmann::json toJson(const RunRecord& run) {
    const ImageMeaning meaning = meaningOf(run.values, run.calibrated);
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
