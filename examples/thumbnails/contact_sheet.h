#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One picture of planar 4:2:0, as a frame sink gets it.
struct PictureView {
    int width = 0;
    int height = 0;
    int rotate = 0;  // clockwise, in degrees
    const uint8_t* const* planes = nullptr;
    const int* linesize = nullptr;
};

// Pictures in rows of equal tiles, each shrunk to its tile, to be written as one PNG file.
class ContactSheet {
public:
    // Room for `count` pictures of this size and rotation.
    ContactSheet(int count, int width, int height, int rotate);

    // Draws a picture on tile `index`, from 0.
    void draw(int index, const PictureView& picture);

    // False, with the reason in `error`, if the file can't be written.
    bool write(const std::string& path, std::string& error) const;

private:
    int columns_;
    int tileWidth_;
    int tileHeight_;
    int sheetWidth_;
    int sheetHeight_;
    std::vector<uint8_t> rgb_;
};
