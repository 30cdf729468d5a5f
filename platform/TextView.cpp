#include "platform/TextView.h"

#include "platform/CHandle.h"

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

namespace ovalto::platform {

namespace {

using LayoutPtr = CHandle<PangoLayout, g_object_unref>;
using ContextPtr = CHandle<PangoContext, g_object_unref>;
using FontPtr = CHandle<PangoFontDescription, pango_font_description_free>;

FontPtr fontDescription(const Font& font) {
    FontPtr description(pango_font_description_new());
    pango_font_description_set_family(description.get(), font.family.c_str());
    // Absolute: a point of the view is a pixel of the surface, whatever the screen resolution.
    pango_font_description_set_absolute_size(description.get(), font.size * PANGO_SCALE);
    pango_font_description_set_weight(description.get(), font.bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    pango_font_description_set_style(description.get(),
                                     font.italic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);
    return description;
}

guint16 channel(double component) {
    return static_cast<guint16>(std::lround(std::clamp(component, 0.0, 1.0) * 65535));
}

// A layout of `text` in the default font and colour, with the text's attributes applied.
LayoutPtr makeLayout(PangoContext* context, const AttributedString& text) {
    LayoutPtr layout(pango_layout_new(context));
    const auto& utf8 = text.string();
    pango_layout_set_text(layout.get(), utf8.data(), static_cast<int>(utf8.size()));
    auto base = fontDescription(Font{});
    pango_layout_set_font_description(layout.get(), base.get());
    PangoAttrList* list = pango_attr_list_new();
    for (const auto& run : text.runs()) {
        const auto start = static_cast<guint>(AttributedString::utf8Offset(utf8, run.location));
        const auto end = static_cast<guint>(AttributedString::utf8Offset(utf8, run.location + run.length));
        auto insert = [&](PangoAttribute* attribute) {
            attribute->start_index = start;
            attribute->end_index = end;
            pango_attr_list_change(list, attribute);
        };
        if (const auto& font = run.attributes.font)
            insert(pango_attr_font_desc_new(fontDescription(*font).get()));
        if (const auto& color = run.attributes.foregroundColor) {
            insert(
                pango_attr_foreground_new(channel(color->red), channel(color->green), channel(color->blue)));
            insert(pango_attr_foreground_alpha_new(channel(color->alpha)));
        }
        if (run.attributes.underlineStyle == 1) insert(pango_attr_underline_new(PANGO_UNDERLINE_SINGLE));
    }
    pango_layout_set_attributes(layout.get(), list);
    pango_attr_list_unref(list);
    return layout;
}

ContextPtr measuringContext() {
    return ContextPtr(pango_font_map_create_context(pango_cairo_font_map_get_default()));
}

void setWidth(PangoLayout* layout, double width, TextAlignment alignment) {
    if (std::isfinite(width) && width > 0) {
        pango_layout_set_width(layout, static_cast<int>(width * PANGO_SCALE));
        pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
    }
    pango_layout_set_alignment(layout, alignment == TextAlignment::right    ? PANGO_ALIGN_RIGHT
                                       : alignment == TextAlignment::center ? PANGO_ALIGN_CENTER
                                                                            : PANGO_ALIGN_LEFT);
}

Size logicalSize(PangoLayout* layout) {
    PangoRectangle logical{};
    pango_layout_get_extents(layout, nullptr, &logical);
    return {static_cast<double>(logical.width) / PANGO_SCALE,
            static_cast<double>(logical.height) / PANGO_SCALE};
}

} // namespace

Size TextView::sizeThatFits(Size size) const {
    auto context = measuringContext();
    auto layout = makeLayout(context.get(), text_);
    setWidth(layout.get(), size.width, alignment_);
    auto needed = logicalSize(layout.get());
    return {std::isfinite(size.width) ? size.width : needed.width, needed.height};
}

Size TextView::measure(std::string_view text) {
    auto context = measuringContext();
    auto layout = makeLayout(context.get(), AttributedString(std::string(text)));
    return logicalSize(layout.get());
}

void TextView::drawContent(cairo_t* context) const {
    auto pango = ContextPtr(pango_cairo_create_context(context));
    auto layout = makeLayout(pango.get(), text_);
    setWidth(layout.get(), bounds().size.width, alignment_);
    cairo_save(context);
    cairo_set_source_rgb(context, 0, 0, 0); // text without a colour of its own
    cairo_translate(context, -contentOffset_.x, -contentOffset_.y);
    pango_cairo_show_layout(context, layout.get());
    cairo_restore(context);
}

} // namespace ovalto::platform
