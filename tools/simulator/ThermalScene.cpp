// SPDX-License-Identifier: Apache-2.0
#include "tools/simulator/ThermalScene.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvo::tools {

namespace {

constexpr float kPi = 3.14159265358979f;

// Everything is drawn with 8-connected lines, without anti-aliasing: object edges stay
// as sharp as the pixel grid allows.
class Painter {
public:
    Painter(cv::Mat_<float>& scene, cv::RNG& rng)
        : scene(scene),
          rng(rng),
          rows(scene.rows),
          cols(scene.cols),
          unit(static_cast<float>(std::min(rows, cols)) / 100.0f) {}

    void paint() {
        horizon = static_cast<float>(rows) * rng.uniform(0.3f, 0.42f);
        background();
        road();
        const int buildings = rng.uniform(2, 4);
        for (int i = 0; i < buildings; ++i) {
            building(i == 0);
        }
        powerLine();
        barGroups();
        const int cars = rng.uniform(2, 5);
        for (int i = 0; i < cars; ++i) {
            car();
        }
        const int people = rng.uniform(3, 6);
        for (int i = 0; i < people; ++i) {
            person();
        }
        smallText();
    }

private:
    int length(float units) const { return std::max(1, cvRound(units * unit)); }
    // Objects nearer the camera (lower in the image) are drawn larger.
    float perspective(float y) const {
        return 0.4f + 0.6f * (y - horizon) / (static_cast<float>(rows) - horizon);
    }
    float groundRow(float nearest, float farthest) {
        return horizon + (static_cast<float>(rows) - horizon) * rng.uniform(nearest, farthest);
    }

    // Sky colder towards the zenith, ground warmer towards the camera with a slow
    // undulation, large sun-warmed patches, a soft horizon and a fine ground texture.
    void background() {
        struct Patch {
            float x, y, radius, amplitude;
        };
        std::vector<Patch> patches(rng.uniform(3, 7));
        for (Patch& patch : patches) {
            patch = {rng.uniform(0.0f, static_cast<float>(cols)),
                     rng.uniform(horizon, static_cast<float>(rows)),
                     rng.uniform(8.0f, 25.0f) * unit, rng.uniform(1.5f, 4.0f)};
        }
        const float skyTop = rng.uniform(4.0f, 6.0f);
        const float skyLow = skyTop + rng.uniform(2.0f, 4.0f);
        const float groundFar = rng.uniform(9.0f, 11.0f);
        const float groundNear = groundFar + rng.uniform(3.0f, 5.0f);
        const float wavePhase = rng.uniform(0.0f, 2.0f * kPi);
        const float horizonWidth = std::max(1.0f, 0.4f * unit);

        cv::Mat_<float> groundWeight(scene.size());
        for (int y = 0; y < rows; ++y) {
            const float fy = static_cast<float>(y);
            const float sky = skyTop + (skyLow - skyTop) * std::min(fy / horizon, 1.0f);
            const float depth = std::max(fy - horizon, 0.0f) / (static_cast<float>(rows) - horizon);
            const float weight = 0.5f * (1.0f + std::tanh((fy - horizon) / horizonWidth));
            for (int x = 0; x < cols; ++x) {
                const float fx = static_cast<float>(x);
                float ground =
                    groundFar + (groundNear - groundFar) * depth +
                    std::sin(2.0f * kPi * fx / (0.7f * static_cast<float>(cols)) + wavePhase) *
                        depth;
                for (const Patch& patch : patches) {
                    const float dx = fx - patch.x;
                    const float dy = fy - patch.y;
                    ground += patch.amplitude *
                              std::exp(-(dx * dx + dy * dy) / (2.0f * patch.radius * patch.radius));
                }
                scene(y, x) = sky + (ground - sky) * weight;
                groundWeight(y, x) = weight;
            }
        }
        cv::Mat_<float> texture(scene.size());
        rng.fill(texture, cv::RNG::NORMAL, 0.0, 1.0);
        cv::GaussianBlur(texture, texture, cv::Size(), 1.2);
        cv::Scalar mean, deviation;
        cv::meanStdDev(texture, mean, deviation);
        scene += texture.mul(groundWeight) * (0.4 / std::max(deviation[0], 1e-6));
    }

    // Asphalt stays warmer than the soil; painted lane marks are cooler.
    void road() {
        const float bottom = static_cast<float>(rows - 1);
        const float centre = static_cast<float>(cols) * rng.uniform(0.35f, 0.65f);
        const float vanish = centre + static_cast<float>(cols) * rng.uniform(-0.15f, 0.15f);
        const float halfWidth = static_cast<float>(cols) * rng.uniform(0.12f, 0.2f);
        const std::vector<cv::Point> outline{{cvRound(centre - halfWidth), cvRound(bottom)},
                                             {cvRound(centre + halfWidth), cvRound(bottom)},
                                             {cvRound(vanish + unit), cvRound(horizon)},
                                             {cvRound(vanish - unit), cvRound(horizon)}};
        cv::Mat1b mask = cv::Mat1b::zeros(scene.size());
        cv::fillConvexPoly(mask, outline, cv::Scalar(255));
        const float far = rng.uniform(14.0f, 16.0f);
        for (int y = std::max(0, cvFloor(horizon)); y < rows; ++y) {
            const float value = far + 4.0f * perspective(static_cast<float>(y));
            for (int x = 0; x < cols; ++x) {
                if (mask(y, x)) {
                    scene(y, x) = value;
                }
            }
        }
        const float markTemperature = far - 3.0f;
        for (float t = 0.05f; t < 1.0f; t += 0.12f) {
            const float t2 = std::min(t + 0.06f, 1.0f);
            const cv::Point from(cvRound(centre + (vanish - centre) * t),
                                 cvRound(bottom + (horizon - bottom) * t));
            const cv::Point to(cvRound(centre + (vanish - centre) * t2),
                               cvRound(bottom + (horizon - bottom) * t2));
            cv::line(scene, from, to, cv::Scalar(markTemperature),
                     std::max(1, cvRound(0.8f * unit * (1.0f - t))));
        }
    }

    // Walls at 24-29 degC, a cooler roof radiating to the sky, windows heated from inside
    // or cold where the glass mirrors the sky; the first building carries a sign.
    void building(bool withSign) {
        const int width = length(rng.uniform(10.0f, 18.0f));
        const int height = length(rng.uniform(14.0f, 26.0f));
        const int left = rng.uniform(0, std::max(1, cols - width));
        const int base = cvRound(horizon + rng.uniform(1.0f, 6.0f) * unit);
        const cv::Rect wall(left, base - height, width, height);
        const float wallTemperature = rng.uniform(24.0f, 29.0f);
        cv::rectangle(scene, wall, cv::Scalar(wallTemperature), cv::FILLED);
        const int roofHeight = length(rng.uniform(2.0f, 6.0f));
        const std::vector<cv::Point> roof{
            {left, wall.y}, {left + width - 1, wall.y}, {left + width / 2, wall.y - roofHeight}};
        cv::fillConvexPoly(scene, roof, cv::Scalar(wallTemperature - 4.0f));

        const int pane = std::max(1, width / 7);
        for (int y = wall.y + pane; y + 2 * pane <= base - height / 4; y += 2 * pane) {
            for (int x = left + pane; x + 2 * pane <= left + width; x += 2 * pane) {
                const float glass =
                    rng.uniform(0, 3) == 0 ? rng.uniform(10.0f, 14.0f) : rng.uniform(31.0f, 36.0f);
                cv::rectangle(scene, cv::Rect(x, y, pane, pane), cv::Scalar(glass), cv::FILLED);
            }
        }
        if (withSign) {
            const int textHeight = std::max(5, height / 8);
            const int thickness = std::max(1, textHeight / 8);
            const double scale =
                cv::getFontScaleFromHeight(cv::FONT_HERSHEY_SIMPLEX, textHeight, thickness);
            cv::putText(scene, "KELVO", cv::Point(left + pane, base - pane),
                        cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(38.0), thickness);
        }
    }

    // Two sagging one-pixel cables between poles: detail thinner than a low-resolution pixel.
    void powerLine() {
        const float top = horizon * rng.uniform(0.25f, 0.55f);
        const float sag = rng.uniform(2.0f, 6.0f) * unit;
        const float span = static_cast<float>(cols) * rng.uniform(0.3f, 0.5f);
        const float start = -rng.uniform(0.0f, span);
        for (float pole = start; pole < static_cast<float>(cols) + span; pole += span) {
            cv::line(scene, cv::Point(cvRound(pole), cvRound(top - unit)),
                     cv::Point(cvRound(pole), cvRound(horizon + 2.0f * unit)), cv::Scalar(16.0),
                     std::max(2, cvRound(0.6f * unit)));
            for (int cable = 0; cable < 2; ++cable) {
                std::vector<cv::Point> curve;
                for (int step = 0; step <= 16; ++step) {
                    const float t = static_cast<float>(step) / 16.0f;
                    curve.emplace_back(cvRound(pole + span * t),
                                       cvRound(top + 1.5f * unit * static_cast<float>(cable) +
                                               4.0f * sag * t * (1.0f - t)));
                }
                cv::polylines(scene, curve, false, cv::Scalar(13.0f + 2.0f * cable), 1);
            }
        }
    }

    // A plate with groups of bars at periods of 3 to 6 high-resolution pixels, vertical
    // and horizontal: all of them beyond what one low-resolution frame can sample.
    void barGroups() {
        const int periods[] = {3, 4, 5, 6};
        const int barLength = 5 * 6;
        const int plateWidth = 5 * (3 + 4 + 5 + 6) + 5 * 4;
        const int plateHeight = 2 * barLength + 12;
        if (plateWidth + 8 > cols || plateHeight + 8 > rows - cvCeil(horizon)) {
            return;
        }
        const cv::Point corner(4, rows - plateHeight - 4);
        cv::rectangle(scene, cv::Rect(corner, cv::Size(plateWidth, plateHeight)), cv::Scalar(15.0),
                      cv::FILLED);
        int x = corner.x + 4;
        for (int period : periods) {
            const int bar = period / 2;
            for (int i = 0; i < 5; ++i) {
                cv::rectangle(scene, cv::Rect(x + i * period, corner.y + 4, bar, barLength),
                              cv::Scalar(30.0), cv::FILLED);
                cv::rectangle(scene,
                              cv::Rect(x, corner.y + 8 + barLength + i * period, 5 * period, bar),
                              cv::Scalar(30.0), cv::FILLED);
            }
            x += 5 * period + 4;
        }
    }

    // A car body at 30-34 degC with a hot bonnet, warm tyres and cold glass.
    void car() {
        const float foot = groundRow(0.2f, 0.95f);
        const float size = perspective(foot) * rng.uniform(10.0f, 14.0f) * unit;
        const int carLength = std::max(4, cvRound(size));
        const int bodyHeight = std::max(2, cvRound(0.3f * size));
        const int left = rng.uniform(0, std::max(1, cols - carLength));
        const int wheelRow = cvRound(foot);
        const int bodyTop = wheelRow - bodyHeight;
        const bool facingRight = rng.uniform(0, 2) == 1;
        cv::rectangle(scene, cv::Rect(left, bodyTop, carLength, bodyHeight),
                      cv::Scalar(rng.uniform(30.0f, 34.0f)), cv::FILLED);
        const int bonnet = carLength / 3;
        cv::rectangle(scene,
                      cv::Rect(facingRight ? left + carLength - bonnet : left, bodyTop, bonnet,
                               bodyHeight / 2 + 1),
                      cv::Scalar(rng.uniform(37.0f, 40.0f)), cv::FILLED);
        const int cabinHeight = std::max(1, cvRound(0.25f * size));
        const std::vector<cv::Point> cabin{{left + carLength / 5, bodyTop},
                                           {left + 4 * carLength / 5, bodyTop},
                                           {left + 2 * carLength / 3, bodyTop - cabinHeight},
                                           {left + carLength / 3, bodyTop - cabinHeight}};
        cv::fillConvexPoly(scene, cabin, cv::Scalar(rng.uniform(17.0f, 21.0f)));
        const int wheel = std::max(1, cvRound(0.11f * size));
        for (int centre : {left + carLength / 5, left + 4 * carLength / 5}) {
            cv::circle(scene, cv::Point(centre, wheelRow), wheel,
                       cv::Scalar(rng.uniform(35.0f, 40.0f)), cv::FILLED);
        }
    }

    // Face and hands at about 35 degC, clothing a few kelvin cooler.
    void person() {
        const float foot = groundRow(0.1f, 0.95f);
        const float height = perspective(foot) * rng.uniform(9.0f, 15.0f) * unit;
        const int x = rng.uniform(0, cols);
        const int footRow = cvRound(foot);
        const auto at = [&](float fraction) { return cvRound(foot - fraction * height); };
        const int limb = std::max(1, cvRound(0.07f * height));
        const float clothing = rng.uniform(30.0f, 33.0f);
        const int stride = cvRound(0.12f * height);
        cv::line(scene, cv::Point(x, at(0.48f)), cv::Point(x - stride, footRow),
                 cv::Scalar(clothing - 1.0f), limb);
        cv::line(scene, cv::Point(x, at(0.48f)), cv::Point(x + stride, footRow),
                 cv::Scalar(clothing - 1.0f), limb);
        const int halfTorso = std::max(1, cvRound(0.11f * height));
        cv::rectangle(scene, cv::Point(x - halfTorso, at(0.82f)),
                      cv::Point(x + halfTorso, at(0.45f)), cv::Scalar(clothing), cv::FILLED);
        cv::line(scene, cv::Point(x - halfTorso, at(0.8f)), cv::Point(x - 2 * halfTorso, at(0.5f)),
                 cv::Scalar(34.0), limb);
        cv::line(scene, cv::Point(x + halfTorso, at(0.8f)), cv::Point(x + 2 * halfTorso, at(0.5f)),
                 cv::Scalar(34.0), limb);
        cv::circle(scene, cv::Point(x, at(0.9f)), std::max(1, cvRound(0.08f * height)),
                   cv::Scalar(rng.uniform(34.5f, 36.0f)), cv::FILLED);
    }

    // One line of text about 8 high-resolution pixels high: four low-resolution rows.
    void smallText() {
        const double scale = cv::getFontScaleFromHeight(cv::FONT_HERSHEY_PLAIN, 8, 1);
        // One draw per statement: the order in which arguments are evaluated is the compiler's.
        const float reading = rng.uniform(10.0f, 40.0f);
        const int label = rng.uniform(10, 99);
        const std::string text = cv::format("T-%02d %.1f", label, reading);
        const int row = cvRound(groundRow(0.3f, 0.6f));
        cv::putText(scene, text, cv::Point(cols / 2 + rng.uniform(-cols / 4, cols / 4 + 1), row),
                    cv::FONT_HERSHEY_PLAIN, scale, cv::Scalar(36.0), 1);
    }

    cv::Mat_<float>& scene;
    cv::RNG& rng;
    const int rows;
    const int cols;
    const float unit;
    float horizon = 0.0f;
};

}  // namespace

cv::Mat_<float> ThermalScene::render(cv::Size size, std::uint64_t seed) {
    if (size.width < 1 || size.height < 1) {
        throw std::invalid_argument("ThermalScene: the size must be at least 1 x 1");
    }
    cv::Mat_<float> scene(size);
    cv::RNG rng(seed);
    Painter(scene, rng).paint();
    return scene;
}

}  // namespace kelvo::tools
