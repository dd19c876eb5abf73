// test_pictures.cpp - sector grid, water-column wedge, side-scan waterfall and
// the PNG pictures.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "backend/backend.h"
#include "driver/driver.h"
#include "driver/workspace.h"
#include "kVane.h"
#include "pictures.h"
#include "reliability_support.h"

using namespace kvane;

namespace {

struct OwnGrid {  // a sector grid with buffers of its own
    std::vector<float> x, y, range, beam;
    SectorGrid g{};
    explicit OwnGrid(std::size_t cap = kGridCapacity) : x(cap), y(cap), range(cap), beam(cap) { handMade(0, 0, 0, 0); }
    void handMade(int W, int rows, int cols, uint8_t fitsHeight) {
        g = SectorGrid{W > 0, W, rows, rows, cols, rows * cols, fitsHeight, x.data(), y.data(), range.data(), beam.data()};
    }
};

struct OwnWork {
    std::vector<float> regrid = std::vector<float>(2048000);
    std::vector<float> angleGrid = std::vector<float>(256);
    std::vector<int32_t> sourceBeam = std::vector<int32_t>(256);
    WedgeWork w{regrid.data(), angleGrid.data(), sourceBeam.data()};
};

// Beams at equal angles, or striking a flat bottom at equal distances.
std::vector<float> fanAngles(int B, float P, bool equalDistances = false) {
    const double half = std::floor(10000.0 * std::tan(P * M_PI / 180.0));
    std::vector<float> a(B);
    for (int i = 0; i < B; ++i)
        a[i] = equalDistances ? static_cast<float>(-std::atan((half - i * 2 * half / (B - 1)) / 10000.0) * 180.0 / M_PI)
                              : -P + static_cast<float>(i) * (2 * P) / static_cast<float>(B - 1);
    return a;
}

}  // namespace

TEST(SectorGrid, SizeFitsTheRasterWithTheFansProportions) {
    OwnGrid og;
    SectorGrid& g = og.g;
    updateSectorGrid(&g, 70.0f, 70.0f, 824, 329, 4000, 256);
    EXPECT_EQ(g.rows, 329);
    EXPECT_EQ(g.cols, 618);
    EXPECT_EQ(g.cells, 203322);
    EXPECT_EQ(g.fitsHeight, 1);
    // Straight below the head (column 309): beam P / ((P + S) / B), n / rows
    // samples a row. The left edge reads the high (starboard) beams.
    for (int r : {1, 100, 328}) {
        EXPECT_NEAR(g.beam[r * 618 + 309], 128.0f, 1e-3f);
        EXPECT_NEAR(g.range[r * 618 + 309], 4000.0f / 329.0f * r, 1e-2f);
    }
    EXPECT_GT(g.beam[200 * 618 + 10], 200.0f);

    updateSectorGrid(&g, 70.0f, 60.0f, 400, 400, 4000, 256);  // square: height fitted
    EXPECT_EQ(g.fitsHeight * 1000000 + g.rows * 1000 + g.cols, 1400751);
    updateSectorGrid(&g, 70.0f, 70.0f, 300, 500, 4000, 256);  // tall: width fitted
    EXPECT_EQ(g.fitsHeight * 1000000 + g.rows * 1000 + g.cols, 159300);

}

// The grid stands while its sums stand: through a change of the gain, a
// degree moved from port to starboard, and a second Malloc, which brings new
// empty buffers under the old signature. The image size rebuilds it.
TEST(SectorGrid, KeptAcrossGainChangesAndASecondMalloc) {
    kvsim::SimPing ping = kvrel::simulatedPing(10.0, 400, 0);
    KVaneParams params = kvrel::typicalParams(64);
    params.sectorPort = params.sectorStarboard = 60.0f;
    params.imageWidth = 300;
    params.imageHeight = 150;
    kvrel::HostBuffers host(params, ping.sampleCount);
    KVaneInput input = kvrel::inputOf(ping);
    KVaneResult result{};
    host.attach(&result);
    auto run = [&] { kVaneProcess20(&params, &input, &result); };

    kVaneMalloc();
    run();
    const int32_t signature = retained.grid.signature;
    ASSERT_GT(retained.grid.cells, 0);
    retained.grid.range[0] = -1.0f;  // a rebuild would overwrite it
    params.imageGain = 3.0f;
    run();
    params.sectorPort = 61.0f;
    params.sectorStarboard = 59.0f;
    run();
    EXPECT_EQ(retained.grid.range[0], -1.0f);
    kVaneFree();
    kVaneMalloc();
    run();
    EXPECT_EQ(retained.grid.signature, signature);
    EXPECT_EQ(retained.grid.range[retained.grid.cells / 2], 0.0f);
    EXPECT_EQ(std::count(host.displayImage.begin(), host.displayImage.begin() + 300 * 150, 0), 300 * 150);
    params.imageWidth = 299;
    run();
    EXPECT_GT(retained.grid.range[retained.grid.cells / 2], 0.0f);
    kVaneFree();
}

// True geometry: a flat seabed at R0 samples below the head (each beam bright
// within +-20 samples of R0 / cos(angle)) is a horizontal line, for beams at
// equal angles and at equal distances; one bright beam is one ray.
TEST(Wedge, FlatSeabedIsALineAndOneBeamARay) {
    const int B = 256, S = 4000, W = 824, H = 329;
    const double R0 = 1500.0, row = R0 * H / S;
    OwnGrid og;
    updateSectorGrid(&og.g, 60.0f, 60.0f, W, H, S, B);
    const int offset = (W - og.g.cols) / 2, cols = og.g.cols;
    OwnWork work;
    std::vector<uint8_t> display(W * H);
    for (int spacing : {1, 2}) {
        const auto angles = spacing == 1 ? fanAngles(B, 60) : fanAngles(B, 60, true);
        std::vector<float> img(B * S, 0.0f);
        for (int i = 0; i < B * S; ++i)
            if (std::fabs(i % S - R0 / std::cos(angles[i / S] * M_PI / 180.0)) <= 20.0) img[i] = 200.0f;
        renderWaterColumnImage(img.data(), B, S, angles.data(), 60, 60, static_cast<int8_t>(spacing),
                               1.0f, display.data(), W, H, &og.g, &work.w);
        // The grid spaces beams by (P + S) / B, the fan by (P + S) / (B - 1):
        // a row of depth at 50 degrees. Equal-distance beams are read through
        // the even angle grid one beam on.
        for (int c = 0; c < cols; ++c) {
            if (std::fabs(og.g.x[c]) > R0 * std::tan(50.0 * M_PI / 180.0)) continue;
            double sum = 0.0, weight = 0.0;
            for (int r = 0; r < H; ++r) {
                sum += display[r * W + offset + c] * r;
                weight += display[r * W + offset + c];
            }
            ASSERT_GT(weight, 0.0) << spacing << ":" << c;
            EXPECT_NEAR(sum / weight, row, spacing == 1 ? 2.0 : 4.0) << spacing << ":" << c;
        }
    }
    // Beam 60, a port beam: lit pixels lie within a beam of it, on the right
    // of the picture, down to the end of the record.
    std::vector<float> img(B * S, 0.0f);
    std::fill(img.begin() + 60 * S, img.begin() + 61 * S, 100.0f);
    std::fill(display.begin(), display.end(), 0);
    renderWaterColumnImage(img.data(), B, S, fanAngles(B, 60).data(), 60, 60, 1, 1.0f,
                           display.data(), W, H, &og.g, &work.w);
    int lit = 0, deepest = 0;
    for (int i = 0; i < W * H; ++i) {
        if (display[i] == 0) continue;
        ++lit;
        deepest = std::max(deepest, i / W);
        EXPECT_NEAR(og.g.beam[i / W * cols + i % W - offset], 60.0f, 1.0f);
        EXPECT_GT(i % W, W / 2);
    }
    EXPECT_GT(lit, H);
    EXPECT_GT(deepest, H * std::cos(35.0 * M_PI / 180.0));
}

TEST(Wedge, RemapWeightsBoundsGainModesAndClipping) {
    const int B = 4, S = 5, N = 7;
    std::vector<float> img(B * S);
    for (int i = 0; i < B * S; ++i) img[i] = static_cast<float>(10 * (i % S) + i / S);  // 10 s + b
    const auto angles = fanAngles(B, 30);
    OwnWork work;
    OwnGrid og(3 * 14);
    og.handMade(N, 1, N, 0);
    const float cell[N][2] = {{1.25f, 2.5f}, {1.25f, 2.25f}, {0, 1}, {3, 1}, {1, 4}, {0.25f, 0}, {2, 3.999f}};
    for (int p = 0; p < N; ++p) {
        og.beam[p] = cell[p][0];
        og.range[p] = cell[p][1];
    }
    std::vector<uint8_t> out(N + 4, 77);
    auto render = [&](int8_t mode, float gain, int W, int H) {
        renderWaterColumnImage(img.data(), B, S, angles.data(), 30, 30, mode, gain, out.data(), W, H,
                               &og.g, &work.w);
    };
    render(1, 1.0f, N, 1);
    // The fractions weight the lower neighbour: (1.25, 2.5) reads 26.75, where
    // ordinary bilinear interpolation gives 26.25. Beam 0, beam B-1 and sample
    // S-1 are outside; nothing is written past the raster.
    EXPECT_EQ(out, (std::vector<uint8_t>{27, 29, 0, 0, 0, 11, 33, 77, 77, 77, 77}));
    render(1, 10.0f, N, 1);
    EXPECT_EQ(out[0], 255);
    render(1, -1.0f, N, 1);
    EXPECT_EQ(out[0], 0);
    for (int8_t mode : {0, 3, -1}) {
        std::fill(out.begin(), out.end(), 77);
        render(mode, 1.0f, N, 1);
        EXPECT_EQ(std::count(out.begin(), out.end(), 77), N + 4);
    }
}

// The picture drawn piece by piece while beams are formed (wide vectors where
// the processor has them) matches the whole remap byte for byte: values below
// 0, NaN, at and above 255, halves that round to even, pieces of every length
// including ones that end inside a group of pixels.
TEST(Wedge, PiecesDrawTheRemapsPicture) {
    const int B = 256, S = 1000, W = 824, H = 329;
    OwnGrid og;
    updateSectorGrid(&og.g, 60.0f, 60.0f, W, H, S, B);
    const auto angles = fanAngles(B, 60);
    std::vector<float> img(B * S);
    const float special[] = {-3.0f, NAN, 255.0f, 254.5f, 253.5f, 0.5f, 1e30f, -0.0f};
    for (int i = 0; i < B * S; ++i)
        img[i] = i % 7 == 0 ? special[(i / 7) % 8] : static_cast<float>((i * 37) % 601) * 0.5f - 20.0f;
    OwnWork work;
    std::vector<uint8_t> whole(W * H, 0), pieces(W * H, 0);
    renderWaterColumnImage(img.data(), B, S, angles.data(), 60, 60, 1, 0.9f, whole.data(), W, H,
                           &og.g, &work.w);
    std::vector<WedgePixel> pixels(kGridCapacity);
    std::vector<int32_t> firstPixel(S + 2);
    WedgePlan plan{};
    plan.pixels = pixels.data();
    plan.firstPixel = firstPixel.data();
    ASSERT_TRUE(prepareWedgePlan(&plan, &og.g, B, S, W, H));
    ASSERT_GT(plan.count, 10000);
    for (int piece : {256, 97, 1000}) {
        std::fill(pieces.begin(), pieces.end(), 0);
        for (int start = 0; start < S; start += piece)
            drawWedgeSamples(plan, img.data(), 0.9f, pieces.data(), start, piece);
        drawWedgeBorders(plan, img.data(), 0.9f, pieces.data(), piece);
        ASSERT_EQ(pieces, whole) << piece;
    }
    // Without the borders the pixels that straddle them stay blank.
    std::fill(pieces.begin(), pieces.end(), 0);
    for (int start = 0; start < S; start += 97)
        drawWedgeSamples(plan, img.data(), 0.9f, pieces.data(), start, 97);
    EXPECT_NE(pieces, whole);
}

namespace {
struct Waterfall {
    std::vector<float> memory = std::vector<float>(kWaterfallRows * kWaterfallRowLength, 0.0f);
    std::vector<float> shown = std::vector<float>(3200000 + 64, -7.0f);
    int32_t ringHead = 0, ringSpan = 0;
    void ping(const float* img, int B, int S, const float* angles, const float* bottom, int mode, int rows, int d) {
        updateSideScanWaterfall(img, B, S, angles, bottom, shown.data(), mode, rows, d,
                                kvane::WaterfallRing{memory.data(), &ringHead, &ringSpan});
    }
    std::vector<float> head(int n) const { return {shown.begin(), shown.begin() + n}; }
};
const float kSixAngles[6] = {-5, -3, -1, 1, 3, 5};  // the last port beam among 2..4 is 2
}  // namespace

TEST(Waterfall, RowsScrollAndOtherModes) {
    const float bottom[6] = {};
    std::vector<float> img(6 * 6, 1.0f), brighter(6 * 6, 5.0f);
    Waterfall wf;
    const int rows[][2] = {{9, 100}, {201, 100}, {-20, 100}, {10, 10}, {200, 200}};
    for (const auto& r : rows) {
        std::fill(wf.shown.begin(), wf.shown.end(), -7.0f);
        wf.ping(img.data(), 6, 6, kSixAngles, bottom, 2, r[0], 0);
        EXPECT_NE(wf.shown[r[1] * 12 - 1], -7.0f) << r[0];
        EXPECT_EQ(wf.shown[r[1] * 12], -7.0f) << r[0];
    }
    wf.ping(brighter.data(), 6, 6, kSixAngles, bottom, 2, 10, 0);  // newest on top
    EXPECT_EQ(wf.shown[3], 5.0f);
    EXPECT_EQ(wf.shown[12 + 3], 1.0f);
    const std::vector<float> before = wf.memory;  // an unknown mode neither scrolls nor shows
    std::fill(wf.shown.begin(), wf.shown.end(), -7.0f);
    wf.ping(img.data(), 6, 6, kSixAngles, bottom, 3, 10, 0);
    EXPECT_EQ(wf.memory, before);
    EXPECT_EQ(wf.shown[0], -7.0f);
}

// The rows shown when the visible count changes from ping to ping are those of
// a store whose first rows - 1 rows move down by one on every ping.
TEST(Waterfall, ChangingRowCountsShowTheScrolledRows) {
    const float bottom[6] = {};
    std::vector<float> model(kWaterfallRows, 0.0f);  // one value per row: the line's level
    Waterfall wf;
    const int counts[] = {10, 10, 12, 12, 12, 10, 200, 10, 15, 15, 15, 15, 15, 15, 15, 15, 11, 200};
    float level = 1.0f;
    for (int rows : counts) {
        std::vector<float> img(6 * 6, level);
        wf.ping(img.data(), 6, 6, kSixAngles, bottom, 2, rows, 0);
        std::copy_backward(model.begin(), model.begin() + rows - 1, model.begin() + rows);
        model[0] = level;
        for (int r = 0; r < rows; ++r) ASSERT_EQ(wf.shown[r * 12 + 3], model[r]) << rows << " " << r;
        level += 1.0f;
    }
}

TEST(Waterfall, WholeRecordMeansOddWidthAndNearRangeShift) {
    const int S = 5;  // odd: 2S - 2 = 8 shown, seam in the middle
    const float bottom[6] = {};
    std::vector<float> img(6 * S);
    for (int i = 0; i < 6 * S; ++i) img[i] = static_cast<float>((i / S + 1) * 100 + i % S);
    Waterfall wf;
    // Port: beams 0, 1 (150 + k), far range on the left; starboard: 2..5 (450 + k).
    wf.ping(img.data(), 6, S, kSixAngles, bottom, 2, 10, 0);
    EXPECT_EQ(wf.head(8), (std::vector<float>{153, 152, 151, 150, 450, 451, 452, 453}));
    // d = 2 cuts two near samples a side; the last entry comes from beyond the line.
    wf.ping(img.data(), 6, S, kSixAngles, bottom, 2, 10, 2);
    EXPECT_EQ(wf.head(7), (std::vector<float>{0, 154, 153, 152, 452, 453, 454}));
    const float allStarboard[6] = {1, 2, 3, 4, 5, 6};  // port half empty
    wf.ping(img.data(), 6, S, allStarboard, bottom, 2, 10, 0);
    EXPECT_EQ(wf.head(8), (std::vector<float>{0, 0, 0, 0, 350, 351, 352, 353}));
}

TEST(Waterfall, AroundTheBottomAndTheLongestPings) {
    const int B = 5, S = 300;
    const float angles[B] = {-10, -5, -1, 0, 10};  // beam 3 (0.0) goes to starboard
    std::vector<float> img(B * S, 1000.0f);        // beams 0, 1 and 4 never contribute
    std::fill(img.begin() + 2 * S, img.begin() + 3 * S, 6.0f);
    std::fill(img.begin() + 3 * S, img.begin() + 4 * S, 9.0f);
    const float bottom[B] = {150, 150, 250, 0, 150};  // runs 150..300 (one past) and 1..100
    Waterfall wf;
    wf.ping(img.data(), B, S, angles, bottom, 1, 10, 0);
    for (int k = 0; k < S; ++k) {  // a mean over contributing beams plus one
        EXPECT_EQ(wf.shown[S - 1 - k], k >= 150 ? 3.0f : 0.0f) << k;
        EXPECT_EQ(wf.shown[S + k], k >= 1 && k <= 100 ? 4.5f : 0.0f) << k;
    }
    // The longest pings fill 200 rows of 16000 and nothing beyond.
    std::vector<float> big(6 * 8000, 2.0f);
    const float sixBottoms[6] = {100, 100, 100, 100, 100, 100};
    for (int mode : {1, 2}) wf.ping(big.data(), 6, 8000, kSixAngles, sixBottoms, mode, 200, 0);
    EXPECT_EQ(wf.shown[0], 2.0f);
    EXPECT_EQ(wf.shown[200 * 16000], -7.0f);
}

namespace {
bool readPng(const std::string& path, int channels, int* w, int* h, std::vector<uint8_t>* pixels) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
    image.format = channels == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
    pixels->resize(PNG_IMAGE_SIZE(image));
    *w = static_cast<int>(image.width);
    *h = static_cast<int>(image.height);
    return png_image_finish_read(&image, nullptr, pixels->data(), 0, nullptr) != 0;
}
}  // namespace

TEST(Pictures, PngRoundTripAndThePicturesOfAPing) {
    const std::string dir = testing::TempDir();
    EXPECT_NE(kvreplay::writePng("/nonexistent-dir/x.png", nullptr, 5, 3, 1), "");
    // A ping's three pictures: the raster as painted, the shown waterfall
    // (odd n: 2n - 2 wide; 12 rows of 400 / 12 = 33 pixels) and the beam image
    // (16 beams of 768 / 16 = 48 pixels, one row a sample) with the bottom line.
    static KVaneParams params{};
    params.imageWidth = 30;
    params.imageHeight = 20;
    params.beamCount = 16;
    params.sideScanRows = 12;
    const int n = 41;
    static KVaneResult result{};
    std::vector<uint8_t> display(30 * 20);
    std::vector<float> beams(16 * n), sideScan(12 * 80);
    for (std::size_t i = 0; i < display.size(); ++i) display[i] = static_cast<uint8_t>(i * 17);
    for (std::size_t i = 0; i < beams.size(); ++i) beams[i] = 1.0f + static_cast<float>(i % 13);
    for (std::size_t i = 0; i < sideScan.size(); ++i) sideScan[i] = static_cast<float>(i % 7);
    std::fill(result.bottomSample, result.bottomSample + 16, 20.0f);  // row 20 of the beam image
    std::fill(result.bottomFlag, result.bottomFlag + 16, uint8_t{1});
    result.displayImage = display.data();
    result.beamImage = beams.data();
    result.sideScanImage = sideScan.data();
    ASSERT_EQ(kvreplay::writePingPictures(dir + "ping-", params, result, n), "");
    int w = 0, h = 0;
    std::vector<uint8_t> back;
    ASSERT_TRUE(readPng(dir + "ping-wedge.png", 1, &w, &h, &back));
    EXPECT_EQ(w * 1000 + h, 30020);
    EXPECT_EQ(back, display);
    ASSERT_TRUE(readPng(dir + "ping-waterfall.png", 3, &w, &h, &back));
    EXPECT_EQ(w * 1000 + h, 80396);
    EXPECT_TRUE(std::equal(back.begin(), back.begin() + 80 * 3, back.begin() + 32 * 80 * 3));
    EXPECT_FALSE(std::equal(back.begin(), back.begin() + 80 * 3, back.begin() + 33 * 80 * 3));
    ASSERT_TRUE(readPng(dir + "ping-beams.png", 3, &w, &h, &back));
    EXPECT_EQ(w * 1000 + h, 768000 + n);
    const uint8_t* px = &back[(20 * 768 + 7 * 48 + 24) * 3];
    EXPECT_EQ(px[0] * 1000000 + px[1] * 1000 + px[2], 255255);  // cyan: own detection
}

TEST(Pictures, FullSizePingsAreAveragedDownToAScreen) {
    const std::string dir = testing::TempDir();
    static KVaneParams params{};
    params.imageWidth = 4;
    params.imageHeight = 4;
    params.beamCount = 256;
    params.sideScanRows = 100;
    const int n = 8000;
    static KVaneResult result{};
    std::vector<uint8_t> display(16, 7);
    // Amplitude rising across the beams; the waterfall's newest row has data
    // on the port side only, the rest of it and the older rows none.
    std::vector<float> beams(static_cast<std::size_t>(256) * n), sideScan(100 * 16000, 0.0f);
    for (int b = 0; b < 256; ++b)
        std::fill(beams.begin() + static_cast<std::ptrdiff_t>(b) * n,
                  beams.begin() + static_cast<std::ptrdiff_t>(b + 1) * n, std::pow(10.0f, b / 40.0f));
    for (int i = 0; i < 8000; ++i) sideScan[i] = 1.0f + static_cast<float>(i / 16 % 10);
    result.bottomSample[100] = 4000.0f;  // row 300 of 600
    result.bottomFlag[100] = 2;
    result.displayImage = display.data();
    result.beamImage = beams.data();
    result.sideScanImage = sideScan.data();
    ASSERT_EQ(kvreplay::writePingPictures(dir + "full-", params, result, n), "");
    int w = 0, h = 0;
    std::vector<uint8_t> back;
    ASSERT_TRUE(readPng(dir + "full-beams.png", 3, &w, &h, &back));
    ASSERT_EQ(w * 1000 + h, 768600);
    auto at = [&](int x, int y) { return &back[(static_cast<std::size_t>(y) * w + x) * 3]; };
    auto brightness = [&](int x, int y) { return at(x, y)[0] + at(x, y)[1] + at(x, y)[2]; };
    EXPECT_LT(brightness(30, 10), brightness(300, 10));
    EXPECT_LT(brightness(300, 10), brightness(700, 10));
    EXPECT_EQ(at(301, 300)[0] + at(301, 300)[1] + at(301, 300)[2], 3 * 255);  // white: copied
    EXPECT_NE(at(301, 200)[0] + at(301, 200)[1] + at(301, 200)[2], 3 * 255);  // beam 100 elsewhere
    ASSERT_TRUE(readPng(dir + "full-waterfall.png", 3, &w, &h, &back));
    ASSERT_EQ(w * 1000 + h, 1000400);
    const uint8_t none[3] = {0, 0, 4};  // the darkest colour: no data
    EXPECT_FALSE(std::equal(none, none + 3, at(105, 0)));  // samples 1680..1695, amplitude 6
    EXPECT_TRUE(std::equal(none, none + 3, at(900, 0)));
    EXPECT_TRUE(std::equal(none, none + 3, at(100, 4)));
}
