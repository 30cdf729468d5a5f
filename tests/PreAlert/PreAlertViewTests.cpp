#include "PreAlert/PreAlertView.h"
#include "ovalto/Ovalto.h"
#include "platform/DispatchQueue.h"
#include "platform/RunLoop.h"
#include "support/LogCapture.h"

#include <cairo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>

// fontconfig keeps its parsed configuration and font caches for the life of the process and
// frees them only on an explicit FcFini, which Pango never calls while its font map may be in use.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
// Pango loads fonts on a thread of its own; fontconfig, built without ThreadSanitizer, guards its
// caches in ways it cannot see.
extern "C" const char* __tsan_default_suppressions() {
    return "race:libfontconfig.so\n";
}

namespace ovalto::test {
namespace {

using nivora::QOEHighlyCriticalInfo;
using nivora::QOEViewInfo;
using platform::Color;

void drainMainQueue() {
    std::atomic<bool> done{false};
    platform::DispatchQueue::main()->async([&] { done = true; });
    ASSERT_TRUE(platform::RunLoop::main().runFor(std::chrono::seconds(30), [&] { return done.load(); }));
}

QOEViewInfo viewInfo(std::string position, std::int32_t percent = 15) {
    QOEViewInfo info;
    info.position = std::move(position);
    info.firstDetail = {true, false, percent, "#FFFFFF", false};
    info.secondDetail = {false, true, percent, "#ffcc00", true};
    info.thirdDetail = {false, false, percent, "#00ff00", false};
    return info;
}

const QOEHighlyCriticalInfo alert{"Réseau instable", "通信が不安定です", "Wait"};

// The box around every pixel of a view's drawing that differs from the background.
struct Ink {
    int minX = INT32_MAX, minY = INT32_MAX, maxX = -1, maxY = -1;
    bool any() const { return maxX >= 0; }
    double centreX() const { return (minX + maxX) / 2.0; }
    double centreY() const { return (minY + maxY) / 2.0; }
};

Ink inkOf(platform::View& view, std::uint32_t background) {
    const auto path =
        std::filesystem::temp_directory_path() / ("prealert-" + std::to_string(::getpid()) + ".png");
    EXPECT_TRUE(view.writePNG(path.string()));
    Ink ink;
    cairo_surface_t* image = cairo_image_surface_create_from_png(path.c_str());
    std::filesystem::remove(path);
    EXPECT_EQ(cairo_surface_status(image), CAIRO_STATUS_SUCCESS);
    const int width = cairo_image_surface_get_width(image), height = cairo_image_surface_get_height(image);
    const int stride = cairo_image_surface_get_stride(image);
    const unsigned char* data = cairo_image_surface_get_data(image);
    for (int y = 0; data && y < height; ++y) {
        const auto* row = reinterpret_cast<const std::uint32_t*>(data + y * stride);
        for (int x = 0; x < width; ++x) {
            if (row[x] == background) continue;
            ink.minX = std::min(ink.minX, x);
            ink.maxX = std::max(ink.maxX, x);
            ink.minY = std::min(ink.minY, y);
            ink.maxY = std::max(ink.maxY, y);
        }
    }
    cairo_surface_destroy(image);
    return ink;
}

class PreAlertViewTest : public ::testing::Test {
protected:
    void SetUp() override { Ovalto::logLevel = OVALogLevel::warning; }
    void TearDown() override { Ovalto::logLevel = OVALogLevel::debug; }

    // The overlay as the QoE manager makes it, with the hide actions kept for the test to run.
    std::shared_ptr<PreAlertView> makeView() {
        auto view = PreAlertView::create({{0, 0}, {640, 360}});
        view->setBackgroundColor(Color::black());
        view->setHidden(true);
        view->setHideScheduler([this](auto delay, const auto& item) { hides.emplace_back(delay, item); });
        return view;
    }

    std::vector<std::pair<std::chrono::steady_clock::duration, std::shared_ptr<platform::DispatchWorkItem>>>
        hides;
};

TEST_F(PreAlertViewTest, EachPositionPlacesTheDrawnTextWhereItSays) {
    using Horizontal = platform::TextAlignment;
    using Vertical = PreAlertView::VerticalAlignment;
    const std::tuple<const char*, Horizontal, Vertical> cases[] = {
        {"TOP_LEFT", Horizontal::left, Vertical::top},
        {"TOP_RIGHT", Horizontal::right, Vertical::top},
        {"UNDER_LEFT", Horizontal::left, Vertical::bottom},
        {"UNDER_RIGHT", Horizontal::right, Vertical::bottom},
        {"MIDDLE", Horizontal::center, Vertical::center},
        {"top_left", Horizontal::center, Vertical::center},
    };
    constexpr double width = 640, height = 360;
    for (const auto& [position, horizontal, vertical] : cases) {
        SCOPED_TRACE(position);
        auto view = makeView();
        view->show(alert, viewInfo(position));
        drainMainQueue();
        EXPECT_FALSE(view->isHidden());
        EXPECT_EQ(view->textAlignment(), horizontal);
        const double fitted = view->sizeThatFits({width, INFINITY}).height, top = -view->contentOffset().y;
        ASSERT_GT(fitted, 0);
        ASSERT_LT(fitted, height);
        EXPECT_GE(top, 1.0);

        const auto ink = inkOf(*view, 0xFF000000); // opaque black background
        ASSERT_TRUE(ink.any());
        // Where the text frame and the drawn ink are, told from their edges.
        const auto across =
            ink.minX < width * 0.05 && ink.maxX < width * 0.8     ? std::optional(Horizontal::left)
            : ink.maxX > width * 0.95 && ink.minX > width * 0.2   ? std::optional(Horizontal::right)
            : std::abs(ink.centreX() - width / 2) <= width * 0.05 ? std::optional(Horizontal::center)
                                                                  : std::nullopt;
        const auto down = top == 1.0 && ink.minY < height * 0.1 ? std::optional(Vertical::top)
                          : std::abs(top + fitted - height) <= 0.5 && ink.maxY > height * 0.9
                              ? std::optional(Vertical::bottom)
                          : std::abs(top + fitted / 2 - height / 2) <= 0.5 &&
                                  std::abs(ink.centreY() - height / 2) <= height * 0.1
                              ? std::optional(Vertical::center)
                              : std::nullopt;
        EXPECT_EQ(across, horizontal);
        EXPECT_EQ(down, vertical);
    }
}

TEST_F(PreAlertViewTest, ATextTallerThanTheViewStartsOnePointBelowTheTop) {
    auto view = makeView();
    view->show(alert, viewInfo("UNDER_LEFT", 100));
    drainMainQueue();
    EXPECT_GT(view->sizeThatFits({640, INFINITY}).height, 360);
    EXPECT_EQ(view->contentOffset().y, -1.0);
}

TEST_F(PreAlertViewTest, ColoursAreReadFromHexText) {
    const std::pair<const char*, Color> cases[] = {
        {"#00ff00", {0, 1, 0, 1}},
        {"zz", {0, 0, 0, 1}},
        {"", {0, 0, 0, 1}},
        {"FF8800", {1, 0x88 / 255.0, 0, 1}},
        {"  #0000FF;", {0, 0, 1, 1}},
        {"#AABBCCDD", {0xBB / 255.0, 0xCC / 255.0, 0xDD / 255.0, 1}}, // higher bits are dropped
        {"#12zz56", {0, 0, 0x12 / 255.0, 1}},                         // the scan stops at z
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(PreAlertView::color(text), expected) << text;
}

TEST_F(PreAlertViewTest, EachTextCarriesItsOwnStyleInUtf16Ranges) {
    // "警告😀" is four UTF-16 units: the emoji takes two.
    const QOEHighlyCriticalInfo info{"警告😀", "ab", "c"};
    QOEViewInfo style = viewInfo("TOP_LEFT");
    style.firstDetail = {true, true, 50, "#ff0000", true};
    style.secondDetail = {false, false, 100, "#0000ff", false};
    style.thirdDetail = {false, true, 25, "#00ff00", false};
    const auto text = PreAlertView::attributedText(info, style, 80);
    EXPECT_EQ(text.string(), "警告😀\n\nab\n\nc");
    EXPECT_EQ(text.length(), 11u);

    // at: size (none: no font), bold, italic, underlined, colour
    using Style = std::tuple<std::optional<double>, bool, bool, bool, std::optional<Color>>;
    const Style plain{std::nullopt, false, false, false, std::nullopt};
    const std::pair<std::size_t, Style> cases[] = {
        {0, {40, true, true, true, Color{1, 0, 0, 1}}},
        {3, {40, true, true, true, Color{1, 0, 0, 1}}},
        {4, plain},
        {5, plain},
        {6, {80, false, false, false, Color{0, 0, 1, 1}}},
        {7, {80, false, false, false, Color{0, 0, 1, 1}}},
        {8, plain},
        {10, {20, false, true, false, Color{0, 1, 0, 1}}},
    };
    for (const auto& [at, expected] : cases) {
        const auto attributes = text.attributesAt(at);
        const auto& font = attributes.font;
        EXPECT_EQ(Style(font ? std::optional(font->size) : std::nullopt, font && font->bold,
                        font && font->italic, attributes.underlineStyle.has_value(),
                        attributes.foregroundColor),
                  expected)
            << at;
    }
}

TEST_F(PreAlertViewTest, ANewerAlertReplacesTheTextAndTheHide) {
    LogCapture log;
    Ovalto::logLevel = OVALogLevel::info;
    auto view = makeView();
    view->show({"first", "", ""}, viewInfo("TOP_LEFT"));
    view->show({"second", "", ""}, viewInfo("TOP_LEFT"));
    drainMainQueue();
    EXPECT_FALSE(view->isHidden());
    EXPECT_EQ(view->attributedText().string().substr(0, 6), "second");

    ASSERT_EQ(hides.size(), 2u);
    // The second is counted from the second alert.
    EXPECT_EQ(std::tuple(hides[0].first, hides[1].first),
              std::tuple(std::chrono::seconds(10), std::chrono::seconds(10)));
    EXPECT_TRUE(hides[0].second->isCancelled());
    hides[0].second->perform(); // the first alert's ten seconds are over
    EXPECT_FALSE(view->isHidden());
    hides[1].second->perform(); // and now the second's
    EXPECT_TRUE(view->isHidden());
    EXPECT_THAT(log.lines(), testing::Contains(testing::HasSubstr("cancel previous work item")).Times(1));
}

TEST_F(PreAlertViewTest, AnOverlayInsideAViewIsDrawnOnlyWhileShown) {
    auto root = platform::View::create({{0, 0}, {320, 180}});
    root->setBackgroundColor(Color::white());
    auto view = PreAlertView::create(root->bounds());
    view->setBackgroundColor(Color::black());
    view->setHidden(true);
    root->addSubview(view);
    EXPECT_FALSE(inkOf(*root, 0xFFFFFFFF).any());
    view->setHidden(false);
    const auto ink = inkOf(*root, 0xFFFFFFFF);
    EXPECT_EQ(ink.minX, 0);
    EXPECT_EQ(ink.maxY, 179);
    EXPECT_FALSE(root->writePNG("/nonexistent-dir/alert.png"));
}

} // namespace
} // namespace ovalto::test
