#include "platform/View.h"

#include <cairo.h>

#include <cmath>

namespace ovalto::platform {

void View::addSubview(std::shared_ptr<View> view) {
    if (!view) return;
    view->superview_ = weak_from_this();
    subviews_.push_back(std::move(view));
}

void View::drawContent(cairo_t*) const {}

void View::draw(cairo_t* context) const {
    cairo_save(context);
    cairo_rectangle(context, 0, 0, frame_.size.width, frame_.size.height);
    cairo_clip(context);
    cairo_set_source_rgba(context, backgroundColor_.red, backgroundColor_.green, backgroundColor_.blue,
                          backgroundColor_.alpha);
    cairo_paint(context);
    drawContent(context);
    for (const auto& subview : subviews_) {
        if (subview->isHidden()) continue;
        cairo_save(context);
        cairo_translate(context, subview->frame_.origin.x, subview->frame_.origin.y);
        subview->draw(context);
        cairo_restore(context);
    }
    cairo_restore(context);
}

bool View::writePNG(const std::string& path) const {
    const int width = std::max(1, static_cast<int>(std::ceil(frame_.size.width)));
    const int height = std::max(1, static_cast<int>(std::ceil(frame_.size.height)));
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    cairo_t* context = cairo_create(surface);
    draw(context);
    cairo_destroy(context);
    const bool written = cairo_surface_write_to_png(surface, path.c_str()) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(surface);
    return written;
}

} // namespace ovalto::platform
