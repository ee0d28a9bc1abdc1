// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

namespace {

using kelvo::vision::SuperResolutionBadPixelHandling;
using Handler = SuperResolutionBadPixelHandling;
using Colour = cv::Vec<unsigned char, 3>;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

float fromBits(unsigned int bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

unsigned int bitsOf(float value) {
    unsigned int bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// Distinct valid values, so that a wrong neighbour shows in the mean.
cv::Mat_<float> rampFrame(int rows, int cols) {
    cv::Mat_<float> frame(rows, cols);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < cols; ++x) {
            frame(y, x) = 20.0f + 1.25f * static_cast<float>(x) + 7.5f * static_cast<float>(y);
        }
    }
    return frame;
}

unsigned char codeAt(const Handler& handler, int y, int x) {
    return handler.getDefectMaps().back().at<unsigned char>(y, x);
}

TEST(SuperResolutionBadPixelHandling, RepairsFromFourNeighboursInsideAndThreeOnTheBorder) {
    Handler handler(5);
    cv::Mat_<float> frame = rampFrame(6, 7);
    const cv::Mat_<float> original = frame.clone();
    frame(2, 3) = kNaN;
    frame(0, 4) = kNaN;
    EXPECT_EQ(handler.detectAndReplaceBadPixel(frame), 0);
    EXPECT_EQ(frame(2, 3), (original(2, 2) + original(2, 4) + original(1, 3) + original(3, 3)) / 4);
    EXPECT_EQ(frame(0, 4), (original(0, 3) + original(0, 5) + original(1, 4)) / 3);

    // A corner has only two neighbours: a marker takes the frame extreme, the rest 0.
    frame = original.clone();
    frame(0, 0) = fromBits(Handler::kMarkerMaximum);
    frame(5, 6) = fromBits(Handler::kMarkerMinimum);
    EXPECT_EQ(handler.detectAndReplaceBadPixel(frame), 0);
    EXPECT_EQ(frame(0, 0), original(5, 5));
    EXPECT_EQ(frame(5, 6), original(0, 1));
    frame(0, 0) = kNaN;
    EXPECT_EQ(handler.detectAndReplaceBadPixel(frame), -2);
    EXPECT_EQ(frame(0, 0), 0.0f);
}

TEST(SuperResolutionBadPixelHandling, RefusesThreeNeighboursInsideAndFallsBack) {
    Handler handler(5);
    const cv::Mat_<float> original = rampFrame(6, 7);
    const float maximum = original(5, 6);
    const float minimum = original(0, 0);
    struct Case {
        float value;
        float fallback;
        int status;
    };
    const Case cases[] = {{fromBits(Handler::kMarkerMaximum), maximum, 0},
                          {fromBits(Handler::kMarkerMinimum), minimum, 0},
                          {fromBits(Handler::kMarkerDefect), 0.0f, -2},
                          {fromBits(Handler::kMarkerDefectAlternative), 0.0f, -2},
                          {kNaN, 0.0f, -2},
                          {kInf, maximum, -2},
                          {-kInf, minimum, -2},
                          {5000.5f, maximum, -2},
                          {-274.5f, minimum, -2}};
    for (const Case& test : cases) {
        // The defect below is met later, so the upper one sees only three valid
        // neighbours; the lower one then counts the upper one's fallback among its four.
        cv::Mat_<float> frame = original.clone();
        frame(2, 3) = test.value;
        frame(3, 3) = kNaN;
        EXPECT_EQ(handler.detectAndReplaceBadPixel(frame), test.status) << test.value;
        EXPECT_EQ(frame(2, 3), test.fallback) << test.value;
        EXPECT_EQ(frame(3, 3),
                  (original(3, 2) + original(3, 4) + test.fallback + original(4, 3)) / 4);
    }
}

TEST(SuperResolutionBadPixelHandling, DefectCodesAndValidRange) {
    Handler handler(1);
    cv::Mat_<float> frame = rampFrame(3, 12);
    const float values[] = {fromBits(130), fromBits(129), fromBits(132), fromBits(133),
                            kNaN,          kInf,          -kInf,         5000.0f,
                            5000.5f,       -274.0f,       -274.5f,       fromBits(131)};
    const unsigned char codes[] = {1, 2, 3, 3, 3, 5, 4, 0, 5, 0, 4, 0};
    for (int x = 0; x < 12; ++x) {
        frame(1, x) = values[x];
    }
    const cv::Mat_<float> input = frame.clone();
    handler.detectAndReplaceBadPixel(frame);
    for (int x = 0; x < 12; ++x) {
        EXPECT_EQ(codeAt(handler, 1, x), codes[x]) << x;
        if (codes[x] == 0) {
            EXPECT_EQ(bitsOf(frame(1, x)), bitsOf(input(1, x))) << x;
        }
    }
    EXPECT_EQ(cv::countNonZero(handler.getDefectMaps().back()), 9);

    // Raw counts: the range widens to 16-bit values, and back.
    handler.setDataIsNUC(true);
    EXPECT_TRUE(handler.getDataIsNUC());
    EXPECT_EQ(handler.getValidMin(), -32768.0f);
    EXPECT_EQ(handler.getValidMax(), 32767.0f);
    cv::Mat_<float> counts = rampFrame(3, 4);
    counts(1, 0) = 32767.0f;
    counts(1, 1) = -32768.0f;
    counts(1, 2) = 32767.5f;
    counts(1, 3) = -32768.5f;
    handler.detectAndReplaceBadPixel(counts);
    EXPECT_EQ(codeAt(handler, 1, 0), 0);
    EXPECT_EQ(codeAt(handler, 1, 1), 0);
    EXPECT_EQ(codeAt(handler, 1, 2), 5);
    EXPECT_EQ(codeAt(handler, 1, 3), 4);
    handler.setDataIsNUC(false);
    EXPECT_FALSE(handler.getDataIsNUC());
    EXPECT_EQ(handler.getValidMin(), -274.0f);
    EXPECT_EQ(handler.getValidMax(), 5000.0f);
}

TEST(SuperResolutionBadPixelHandling, ExtremesSkipDefectsAndKeepTheFirstOccurrence) {
    const Handler handler(1);
    cv::Mat_<float> image(3, 4, 100.0f);
    image(0, 1) = fromBits(131);  // an ordinary tiny value
    image(2, 0) = fromBits(131);
    image(1, 1) = 4000.0f;
    image(2, 3) = 4000.0f;
    image(0, 0) = -kInf;
    image(0, 2) = fromBits(Handler::kMarkerMaximum);
    image(1, 0) = 6000.0f;
    float minimum = 0;
    float maximum = 0;
    cv::Point_<int> minAt;
    cv::Point_<int> maxAt;
    handler.getMinMaxVal(image, minimum, maximum, &minAt, &maxAt);
    EXPECT_EQ(bitsOf(minimum), 131u);
    EXPECT_EQ(minAt, cv::Point_<int>(1, 0));
    EXPECT_EQ(maximum, 4000.0f);
    EXPECT_EQ(maxAt, cv::Point_<int>(1, 1));

    // A flat image at a range end still locates its extremes; without valid pixels
    // nothing is located.
    handler.getMinMaxVal(cv::Mat_<float>(2, 2, 5000.0f), minimum, maximum, &minAt, &maxAt);
    EXPECT_EQ(minimum, 5000.0f);
    EXPECT_EQ(minAt, cv::Point_<int>(0, 0));
    handler.getMinMaxVal(cv::Mat_<float>(2, 2, kNaN), minimum, maximum, &minAt, &maxAt);
    EXPECT_EQ(minimum, 5000.0f);
    EXPECT_EQ(maximum, -274.0f);
    EXPECT_EQ(minAt, cv::Point_<int>(-1, -1));
    EXPECT_EQ(maxAt, cv::Point_<int>(-1, -1));
}

TEST(SuperResolutionBadPixelHandling, FallbackExtremesMatchThePlainScanBitForBit) {
    // Every width from 1 to 11 puts columns beyond the last group of four lanes; zero
    // extremes of both signs check that the first one met wins.
    cv::RNG random(11);
    for (int cols = 1; cols <= 11; ++cols) {
        for (int variant = 0; variant < 4; ++variant) {
            cv::Mat_<float> frame(5, cols);
            random.fill(frame, cv::RNG::UNIFORM, -50.0f, 50.0f);
            if (variant == 1) {
                frame = cv::abs(frame);
                frame(1, cols - 1) = -0.0f;
                frame(3, 0) = 0.0f;
            } else if (variant == 2) {
                frame = -cv::abs(frame);
                frame(2, 0) = 0.0f;
                frame(3, cols - 1) = -0.0f;
            } else if (variant == 3) {
                frame(2, cols - 1) = kNaN;
            }
            // Corners have at most two neighbours: the markers take the frame extremes.
            frame(0, 0) = fromBits(Handler::kMarkerMaximum);
            frame(4, cols - 1) = fromBits(Handler::kMarkerMinimum);
            Handler handler(1);
            float minimum = 0;
            float maximum = 0;
            handler.getMinMaxVal(frame, minimum, maximum, nullptr, nullptr);
            handler.detectAndReplaceBadPixel(frame);
            EXPECT_EQ(bitsOf(frame(0, 0)), bitsOf(maximum)) << cols << ", " << variant;
            EXPECT_EQ(bitsOf(frame(4, cols - 1)), bitsOf(minimum)) << cols << ", " << variant;
            EXPECT_EQ(codeAt(handler, 2, cols - 1), variant == 3 ? 3 : 0) << cols;
            EXPECT_TRUE(std::isfinite(frame(2, cols - 1)));
        }
    }
}

TEST(SuperResolutionBadPixelHandling, MoreThanTenUnrepairablePixelsThrow) {
    // Each defect of row 2 has a defect below it: three neighbours, so it falls back
    // to 0 and counts as unrepairable; the one below then repairs from four.
    const auto frameWithPairs = [](int pairs) {
        cv::Mat_<float> frame = rampFrame(8, 30);
        for (int i = 0; i < pairs; ++i) {
            frame(2, 1 + 2 * i) = kNaN;
            frame(3, 1 + 2 * i) = kNaN;
        }
        return frame;
    };
    Handler handler(2);
    cv::Mat_<float> ten = frameWithPairs(10);
    EXPECT_EQ(handler.detectAndReplaceBadPixel(ten), -2);
    cv::Mat_<float> eleven = frameWithPairs(11);
    try {
        handler.detectAndReplaceBadPixel(eleven);
        FAIL() << "no exception";
    } catch (const kelvo::Exception& error) {
        EXPECT_STREQ(error.what(), "Too many defect pixels. No processing possible.");
        EXPECT_EQ(error.location(),
                  "vision/superresolution/SuperResolutionBadPixelHandling: 287: "
                  "kelvo::vision::SuperResolutionBadPixelHandling::detectAndReplaceBadPixel(..)");
    }
    // The failing frame's map is kept all the same.
    ASSERT_EQ(handler.getDefectMaps().size(), 2u);
    EXPECT_EQ(cv::countNonZero(handler.getDefectMaps().back()), 22);
}

TEST(SuperResolutionBadPixelHandling, FlatEmptyAndAllInvalidFramesAreHandled) {
    Handler handler(3);
    cv::Mat_<float> flat(16, 16, 25.0f);
    EXPECT_EQ(handler.detectAndReplaceBadPixel(flat), 0);
    EXPECT_EQ(cv::countNonZero(flat != 25.0f), 0);
    cv::Mat_<float> empty;
    EXPECT_EQ(handler.detectAndReplaceBadPixel(empty), 0);
    cv::Mat_<float> tinyInvalid(3, 3, kNaN);
    EXPECT_EQ(handler.detectAndReplaceBadPixel(tinyInvalid), -2);
    EXPECT_EQ(cv::countNonZero(tinyInvalid != 0.0f), 0);
    cv::Mat_<float> invalid(64, 64, kNaN);
    EXPECT_THROW(handler.detectAndReplaceBadPixel(invalid), kelvo::Exception);
    cv::Mat_<float> markers(64, 64, fromBits(Handler::kMarkerMaximum));
    EXPECT_EQ(handler.detectAndReplaceBadPixel(markers), 0);
    EXPECT_EQ(cv::countNonZero(markers != -274.0f), 0);
}

TEST(SuperResolutionBadPixelHandling, ValidPixelsNeverChangeAndRepairsAreValid) {
    cv::RNG random(7);
    Handler handler(5);
    cv::Mat_<float> frame(48, 64);
    random.fill(frame, cv::RNG::UNIFORM, -100.0f, 200.0f);
    const float defects[] = {kNaN,          kInf,          -kInf,         9000.0f,      -500.0f,
                             fromBits(129), fromBits(130), fromBits(132), fromBits(133)};
    for (int i = 0; i < 60; ++i) {
        frame(random.uniform(0, frame.rows), random.uniform(0, frame.cols)) = defects[i % 9];
    }
    const cv::Mat_<float> input = frame.clone();
    handler.detectAndReplaceBadPixel(frame);
    const cv::Mat& codes = handler.getDefectMaps().back();
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            if (codes.at<unsigned char>(y, x) == 0) {
                ASSERT_EQ(bitsOf(frame(y, x)), bitsOf(input(y, x))) << x << ", " << y;
            } else {
                ASSERT_TRUE(frame(y, x) >= -100.0f && frame(y, x) <= 200.0f) << x << ", " << y;
            }
        }
    }
}

TEST(SuperResolutionBadPixelHandling, HistoryKeepsTheLastMapsAndReusesTheOldest) {
    Handler handler(3);
    std::vector<const unsigned char*> storage;
    for (int frameIndex = 0; frameIndex < 5; ++frameIndex) {
        cv::Mat_<float> frame = rampFrame(6, 8);
        frame(2, 1 + frameIndex) = kNaN;
        handler.detectAndReplaceBadPixel(frame);
        storage.push_back(handler.getDefectMaps().back().data);
    }
    const std::vector<cv::Mat>& maps = handler.getDefectMaps();
    ASSERT_EQ(maps.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cv::countNonZero(maps[i]), 1);
        EXPECT_EQ(maps[i].at<unsigned char>(2, 3 + i), 3) << i;
    }
    // Frames 4 and 5 went into the storage of frames 1 and 2.
    EXPECT_EQ(storage[3], storage[0]);
    EXPECT_EQ(storage[4], storage[1]);

    Handler forgetful(0);
    cv::Mat_<float> frame = rampFrame(6, 8);
    frame(2, 2) = kNaN;
    EXPECT_EQ(forgetful.detectAndReplaceBadPixel(frame), 0);
    EXPECT_TRUE(forgetful.getDefectMaps().empty());
    EXPECT_TRUE(std::isfinite(frame(2, 2)));
}

// Two frames of 10 x 8 with one defect each, masked into a 20 x 16 result.
struct MaskedResult {
    Handler handler{2};
    std::vector<cv::Point_<float>> shifts{{0.5f, -0.25f}, {0.0f, 0.0f}};
    std::vector<cv::Mat_<float>> frames;
    cv::Mat_<float> result = cv::Mat_<float>(16, 20, 50.0f);

    MaskedResult() {
        frames.push_back(rampFrame(8, 10));
        frames.push_back(rampFrame(8, 10) + 100.0f);
        frames[0](3, 4) = kNaN;
        frames[1](0, 9) = fromBits(Handler::kMarkerMinimum);
        for (cv::Mat_<float>& frame : frames) {
            handler.detectAndReplaceBadPixel(frame);
        }
        handler.maskBadPixel(result, shifts);
    }
};

TEST(SuperResolutionBadPixelHandling, MasksTheBlockAroundEachShiftedDefect) {
    MaskedResult masked;
    // Frame 0: (4 - 0.5, 3 + 0.25) doubled is (7, 6.5): block x 4..10, y 3..9, code 3.
    // Frame 1: (9, 0) doubled is (18, 0): block x 15..19, y 0..3, clipped, code 1.
    for (int y = 0; y < masked.result.rows; ++y) {
        for (int x = 0; x < masked.result.cols; ++x) {
            unsigned int expected = bitsOf(50.0f);
            if (x >= 4 && x <= 10 && y >= 3 && y <= 9) {
                expected = Handler::kMarkerDefect;
            } else if (x >= 15 && y <= 3) {
                expected = Handler::kMarkerMinimum;
            }
            ASSERT_EQ(bitsOf(masked.result(y, x)), expected) << x << ", " << y;
        }
    }

    // Defects whose projection leaves the result above, below or to the left mark
    // nothing; one to the right marks the columns it still reaches.
    cv::Mat_<float> result(16, 20, 50.0f);
    const std::vector<cv::Point_<float>> outside[] = {{{0.0f, 3.5f}, {0.0f, 0.1f}},
                                                      {{0.0f, -5.0f}, {9.6f, 0.0f}},
                                                      {{-7.5f, 0.0f}, {9.6f, 0.0f}},
                                                      {{kNaN, kNaN}, {kInf, -kInf}}};
    for (const auto& shifts : outside) {
        masked.handler.maskBadPixel(result, shifts);
        EXPECT_EQ(cv::countNonZero(result != 50.0f), 0);
    }
    masked.handler.maskBadPixel(result, {{-7.0f, 0.0f}, {9.6f, 0.0f}});
    EXPECT_EQ(cv::countNonZero(result.col(19) != 50.0f), 7);
    EXPECT_EQ(cv::countNonZero(result != 50.0f), 7);

    try {
        masked.handler.maskBadPixel(result, {{0.0f, 0.0f}});
        FAIL() << "no exception";
    } catch (const kelvo::Exception& error) {
        EXPECT_STREQ(error.what(),
                     "maskBadPixel(): number of shifts ist not equal to number of defectMaps");
        EXPECT_EQ(error.location(),
                  "vision/superresolution/SuperResolutionBadPixelHandling: 298: "
                  "kelvo::vision::SuperResolutionBadPixelHandling::maskBadPixel(..)");
    }
}

TEST(SuperResolutionBadPixelHandling, RefillsMarkedPixelsFromGoodFramePixels) {
    MaskedResult masked;
    masked.result(0, 0) = fromBits(Handler::kMarkerMaximum);
    masked.result(15, 0) = fromBits(Handler::kMarkerDefectAlternative);
    const cv::Mat_<float> before = masked.result.clone();
    masked.handler.replaceMaskedPixel(masked.result, masked.shifts, masked.frames);
    // Result (x, y) lies on frame pixel trunc((x / 2, y / 2) + shift); defects do not count.
    const std::vector<cv::Mat_<float>>& frames = masked.frames;
    EXPECT_EQ(masked.result(0, 0), (frames[0](0, 0) + frames[1](0, 0)) / 2);
    EXPECT_EQ(masked.result(0, 16), (frames[0](0, 8) + frames[1](0, 8)) / 2);
    EXPECT_EQ(masked.result(0, 18), frames[0](0, 9));
    EXPECT_EQ(masked.result(7, 8), frames[1](3, 4));
    // Beyond frame 0 and on the defect of frame 1 nothing counts: the marker stays, as do
    // the alternative marker and every unmarked pixel. 70 pixels were marked.
    EXPECT_EQ(bitsOf(masked.result(0, 19)), Handler::kMarkerMinimum);
    EXPECT_EQ(bitsOf(masked.result(1, 19)), Handler::kMarkerMinimum);
    EXPECT_EQ(bitsOf(masked.result(15, 0)), Handler::kMarkerDefectAlternative);
    EXPECT_EQ(cv::countNonZero(masked.result != before), 68);

    // Fewer or smaller frames than maps: only what all of them cover counts.
    cv::Mat_<float> marked(16, 20, fromBits(Handler::kMarkerDefect));
    masked.handler.replaceMaskedPixel(marked, masked.shifts, {cv::Mat_<float>(2, 3, 4.0f)});
    EXPECT_EQ(marked(0, 0), 4.0f);
    EXPECT_EQ(bitsOf(marked(15, 19)), Handler::kMarkerDefect);
    cv::Mat_<float> empty;
    masked.handler.maskBadPixel(empty, masked.shifts);
    masked.handler.replaceMaskedPixel(empty, masked.shifts, masked.frames);

    // Where every frame's pixel is itself defective the marker stays.
    Handler lonely(1);
    cv::Mat_<float> frame = rampFrame(4, 4);
    frame(1, 1) = kNaN;
    lonely.detectAndReplaceBadPixel(frame);
    cv::Mat_<float> result(8, 8, 1.0f);
    lonely.maskBadPixel(result, {{0.0f, 0.0f}});
    lonely.replaceMaskedPixel(result, {{0.0f, 0.0f}}, {frame});
    EXPECT_EQ(bitsOf(result(2, 2)), Handler::kMarkerDefect);
    EXPECT_EQ(result(0, 0), frame(0, 0));

    try {
        Handler(5).replaceMaskedPixel(result, {}, {});
        FAIL() << "no exception";
    } catch (const kelvo::Exception& error) {
        EXPECT_STREQ(error.what(), "bad pixel masks not initalized");
        EXPECT_EQ(error.location(),
                  "vision/superresolution/SuperResolutionBadPixelHandling: 380: "
                  "kelvo::vision::SuperResolutionBadPixelHandling::replaceMaskedPixel(..)");
    }
}

TEST(SuperResolutionBadPixelHandling, ColoursMaximumMarkersRedAndMinimumMarkersBlue) {
    cv::Mat_<float> image(2, 3, 10.0f);
    image(0, 0) = fromBits(Handler::kMarkerMaximum);
    image(0, 1) = fromBits(Handler::kMarkerMinimum);
    image(1, 0) = fromBits(Handler::kMarkerDefect);
    image(1, 1) = fromBits(131);
    cv::Mat_<Colour> view(2, 3, Colour(7, 8, 9));
    Handler::colorBadPixel(image, view);
    EXPECT_EQ(view(0, 0), Colour(0, 0, 255));
    EXPECT_EQ(view(0, 1), Colour(255, 0, 0));
    for (const cv::Point& unchanged : {cv::Point(2, 0), cv::Point(0, 1), cv::Point(1, 1)}) {
        EXPECT_EQ(view(unchanged), Colour(7, 8, 9));
    }
    cv::Mat_<Colour> smallView(1, 1);
    Handler::colorBadPixel(image, smallView);
    EXPECT_EQ(smallView(0, 0), Colour(0, 0, 255));
}

TEST(SuperResolutionBadPixelHandling, CopiesKeepTheirOwnDefectHistory) {
    Handler original(2);
    cv::Mat_<float> defective = rampFrame(8, 8);
    defective(4, 4) = fromBits(Handler::kMarkerDefect);
    original.detectAndReplaceBadPixel(defective);
    cv::Mat_<float> clean = rampFrame(8, 8);
    original.detectAndReplaceBadPixel(clean);

    Handler copy(original);
    Handler assigned(5);
    assigned = original;
    for (Handler* other : {&copy, &assigned}) {
        for (int i = 0; i < 2; ++i) {
            cv::Mat_<float> frame = rampFrame(8, 8);
            other->detectAndReplaceBadPixel(frame);
        }
        EXPECT_EQ(codeAt(*other, 4, 4), 0);
    }
    EXPECT_EQ(original.getDefectMaps()[0].at<unsigned char>(4, 4), 3);
}

}  // namespace
