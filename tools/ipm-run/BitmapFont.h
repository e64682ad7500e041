// The ten digits in a 5x7 bitmap font, enough to stamp a frame counter on a
// picture without a font library.
#pragma once

#include <cstdint>
#include <string>

class BitmapFont {
public:
    static constexpr int kGlyphWidth = 5;
    static constexpr int kGlyphHeight = 7;
    // Columns between two glyphs.
    static constexpr int kSpacing = 1;

    // Whether the pixel at (column, row) of the glyph of a digit is set;
    // false outside the glyph and for anything but '0' to '9'.
    static bool pixel(char digit, int column, int row);

    // Width in font pixels of a text of digits, gaps included.
    static int textWidth(const std::string& text);
};
