// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kelvo::vision {

// Defective sensor pixels in the super-resolution pass. A defect arrives in a float
// frame as a marker bit pattern (denormal numbers that never occur as measurements),
// as an infinite or NaN value, or as a value outside the valid range. Detection
// repairs each defect at once from its four neighbours and keeps a defect map per
// frame for the last historyLength frames; after reconstruction the result pixels
// that those defects influenced are marked and refilled from good input pixels.
class SuperResolutionBadPixelHandling {
public:
    // Marker bit patterns, read as the unsigned integer of the float.
    static constexpr unsigned int kMarkerMaximum = 129;  // repaired with the frame maximum
    static constexpr unsigned int kMarkerMinimum = 130;  // repaired with the frame minimum
    static constexpr unsigned int kMarkerDefect = 132;
    static constexpr unsigned int kMarkerDefectAlternative = 133;

    // Codes of a defect map; 0 is a good pixel.
    enum DefectCode : unsigned char {
        kDefectMinimumMarker = 1,
        kDefectMaximumMarker = 2,
        kDefectInvalid = 3,
        kDefectBelowRange = 4,
        kDefectAboveRange = 5,
    };

    // A history length of 0 keeps no defect map; frames are still repaired.
    explicit SuperResolutionBadPixelHandling(unsigned int historyLength);
    // Copies own their defect maps: the history recycles map storage in place.
    SuperResolutionBadPixelHandling(const SuperResolutionBadPixelHandling& other);
    SuperResolutionBadPixelHandling& operator=(const SuperResolutionBadPixelHandling& other);

    // Raw sensor counts have a wider valid range than temperatures.
    void setDataIsNUC(bool value);
    bool getDataIsNUC() const { return dataIsNUC; }
    // Any other valid range; the caller checks that minimum lies below maximum.
    void setValidRange(float minimum, float maximum);
    float getValidMin() const { return validMin; }
    float getValidMax() const { return validMax; }

    // Repairs the frame in place and stores its defect map. Returns 0, or -2 when some
    // defect could only be filled with a fallback value; throws kelvo::Exception when
    // more than ten pixels cannot be repaired.
    int detectAndReplaceBadPixel(cv::Mat_<float>& frame);

    // Extremes over the valid pixels; the first occurrence wins. Without a valid pixel
    // the values stay at the opposite ends of the valid range and the locations given
    // are set to (-1, -1).
    void getMinMaxVal(const cv::Mat_<float>& image, float& minValue, float& maxValue,
                      cv::Point_<int>* minLocation, cv::Point_<int>* maxLocation) const;

    // Writes marker bits into the 7 x 7 result block around every stored defect, placed
    // at twice its position minus its frame's shift. Throws kelvo::Exception unless there
    // is one shift per stored defect map.
    void maskBadPixel(cv::Mat_<float>& result, const std::vector<cv::Point_<float>>& shifts);

    // Refills marked result pixels with the mean of the good frame pixels they map to;
    // frames and shifts pair with the stored defect maps in order, as far as all three
    // reach. Throws kelvo::Exception when no defect map is stored.
    void replaceMaskedPixel(cv::Mat_<float>& result, const std::vector<cv::Point_<float>>& shifts,
                            const std::vector<cv::Mat_<float>>& frames);

    // Fills the marked result pixels that no frame could refill (a cluster of defects covers
    // them in every frame) with the mean of their unmarked eight-neighbours, ring by ring from
    // the edge of each marked region inwards, so that no marker, a value near zero, stays in the
    // result. Returns the number of pixels filled; an image without an unmarked pixel is left
    // as it is.
    int fillRemainingMarkers(cv::Mat_<float>& result);

    // Paints 129 markers red and 130 markers blue into a colour view of the image, as far
    // as both extend.
    static void colorBadPixel(const cv::Mat_<float>& image,
                              cv::Mat_<cv::Vec<unsigned char, 3>>& view);

    // Oldest first. The storage of the oldest map is reused for the next frame once
    // historyLength maps are held, so clone a map that must outlive the history.
    const std::vector<cv::Mat>& getDefectMaps() const { return defectMaps; }

protected:
    // Mean of the valid four-neighbours; true when all four counted, or three on the
    // image border.
    bool getReplacementValue_(const cv::Mat_<float>& image, int x, int y, float& value) const;

private:
    struct Defect {
        int x;
        int y;
        unsigned char code;
    };

    bool isValid(float value) const;
    unsigned char defectCode_(float value) const;
    // Lists the defects of the frame in row-major order, writing their codes into the map
    // when one is given, and lowers minValue and raises maxValue to the valid extremes.
    void scanFrame_(const cv::Mat_<float>& frame, cv::Mat* defectMap, float& minValue,
                    float& maxValue);
    // Mean of the pixels of the first frameCount frames under result pixel (x, y) that
    // their defect maps mark good; false when there is none.
    bool meanOfGoodFramePixels_(int x, int y, const std::vector<cv::Point_<float>>& shifts,
                                const std::vector<cv::Mat_<float>>& frames, size_t frameCount,
                                float& mean) const;
    // The zeroed map the next frame's defects go to, or null when no map is kept.
    cv::Mat* nextDefectMap_(cv::Size size);

    unsigned int historyLength;
    float validMin;
    float validMax;
    bool dataIsNUC;
    cv::Point_<int> neighbourOffsets[4];
    std::vector<cv::Mat> defectMaps;
    // The defects of the frame being repaired, in row-major order; kept as a member so
    // that its capacity serves all later frames.
    std::vector<Defect> defects;
    // The marked result pixels still to fill, and the values of one ring; reused likewise.
    std::vector<int> unfilledMarkers;
    std::vector<float> ringValues;
};

}  // namespace kelvo::vision
