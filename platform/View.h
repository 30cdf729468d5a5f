#pragma once

#include "platform/Color.h"
#include "platform/Geometry.h"

#include <memory>
#include <string>
#include <vector>

struct _cairo;

namespace ovalto::platform {

// A rectangle of the screen with subviews, drawn with cairo. There is no screen here: a view
// and what is visible inside it can be written to a PNG file, which is how a person looks at it.
// Views are changed on the main queue only, like every view toolkit's.
class View : public std::enable_shared_from_this<View> {
public:
    explicit View(Rect frame)
        : frame_(frame) {}
    virtual ~View() = default;
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    static std::shared_ptr<View> create(Rect frame) { return std::make_shared<View>(frame); }

    Rect frame() const { return frame_; }
    void setFrame(Rect frame) { frame_ = frame; }
    // The frame in the view's own coordinates.
    Rect bounds() const { return {{}, frame_.size}; }
    bool isHidden() const { return hidden_; }
    void setHidden(bool hidden) { hidden_ = hidden; }
    Color backgroundColor() const { return backgroundColor_; }
    void setBackgroundColor(Color color) { backgroundColor_ = color; }

    void addSubview(std::shared_ptr<View> view);
    const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
    std::shared_ptr<View> superview() const { return superview_.lock(); }

    // Draws this view (hidden or not) and its visible subviews into a PNG file of the view's
    // size. False when the file cannot be written.
    bool writePNG(const std::string& path) const;

protected:
    // Draws what the view shows over its background, in its own coordinates.
    virtual void drawContent(_cairo* context) const;

private:
    void draw(_cairo* context) const;

    Rect frame_;
    bool hidden_ = false;
    Color backgroundColor_{0, 0, 0, 0};
    std::vector<std::shared_ptr<View>> subviews_;
    std::weak_ptr<View> superview_;
};

} // namespace ovalto::platform
