// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "tools/kelvo-sr/SuperResolver.h"

namespace kelvo::tools {

// One frame of a pass: where registration found it against the reference, and how much
// of it the reconstruction could use.
struct FrameRecord {
    std::string file;
    float shiftX = 0.0f;
    float shiftY = 0.0f;
    float validFraction = 0.0f;
};

// Everything a user needs to judge and reproduce one result.
struct ResultRecord {
    std::string result;                // the float TIFF
    std::vector<std::string> outputs;  // every file written for it, the TIFF first
    std::vector<FrameRecord> frames;   // the frames of the pass, oldest first
    std::string reference;
    int status = 0;      // the command's code for the result: 0 or a warning (-2 .. -6)
    int passStatus = 0;  // the engine's own finding: 0, -3, -6
    float factorEstimate = 0.0f;
    double passMilliseconds = 0.0;
};

// The record of a pass over the frames of `windowFiles` (oldest first).
ResultRecord recordPass(const PassReport& pass, const std::vector<std::string>& windowFiles,
                        int status, double passMilliseconds);

nlohmann::json toJson(const ResultRecord& record);

// A result's code in words: the interface's codes, and the engine's -6.
std::string statusText(int status);

// The record as a few lines for a person: frames, reference, shifts, valid fractions,
// pass status and time.
void printRecord(std::ostream& out, const ResultRecord& record);

// The whole run: what the values are, the version, and one entry per result, with the
// frames that were skipped and why.
struct RunRecord {
    std::string command;
    ValueKind values = ValueKind::kTemperature;
    bool calibrated = false;  // counts turned into radiance
    std::vector<ResultRecord> results;
    std::vector<std::pair<std::string, std::string>> skipped;  // file, reason
};

nlohmann::json toJson(const RunRecord& run);

// Writes the run as indented JSON; throws std::runtime_error naming the file on failure.
void writeJson(const std::string& path, const RunRecord& run);

}  // namespace kelvo::tools
