#pragma once

#include "platform/AttributedString.h"
#include "platform/View.h"

#include <string_view>

namespace ovalto::platform {

enum class TextAlignment { left, center, right };

// A view that shows attributed text, laid out with Pango: lines wrap at the view's width, and
// the content offset scrolls the text (a negative y moves it down).
class TextView : public View {
public:
    explicit TextView(Rect frame)
        : View(frame) {}

    const AttributedString& attributedText() const { return text_; }
    void setAttributedText(AttributedString text) { text_ = std::move(text); }
    TextAlignment textAlignment() const { return alignment_; }
    void setTextAlignment(TextAlignment alignment) { alignment_ = alignment; }
    Point contentOffset() const { return contentOffset_; }
    void setContentOffset(Point offset) { contentOffset_ = offset; }
    double zoomScale() const { return zoomScale_; }

    // The size the text needs at `size`'s width; an infinite height does not limit it.
    Size sizeThatFits(Size size) const;
    // The size of `text` in one line in the default font.
    static Size measure(std::string_view text);

protected:
    void drawContent(_cairo* context) const override;

private:
    AttributedString text_;
    TextAlignment alignment_ = TextAlignment::left;
    Point contentOffset_;
    double zoomScale_ = 1;
};

} // namespace ovalto::platform
