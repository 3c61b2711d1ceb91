// Image-content library: decoded images and image sequences in the pixel layouts
// the eye compositor reads directly.
//
// Pixel layout of every frame: rows top to bottom, pixels left to right,
//   with alpha:    4 bytes per pixel, R G B A
//   without alpha: 3 bytes per pixel, R G B
// With `twelveBit` the colour channels hold 4-bit values (the 8-bit value >> 4);
// alpha always stays 8-bit.
//
// Relative paths of images to read are resolved against the base directory
// (setBaseDirectory) when a file is opened; `path` keeps the text exactly as given.
// writePng writes to the path as given.
//
// Image sequences (animated eyelids). `path` names either
//   - a directory: every "*.png" file in it is one frame, in file-name order
//     (byte-wise), all of the size of the first; or
//   - one PNG sprite sheet: cut row by row, left to right, into frames of
//     `width` x `height` pixels (the whole sheet is one frame when either is 0).
//     `frameTotal` frames are taken when it is non-zero, else every whole frame
//     that fits.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class VContent {
 public:
  std::vector<std::vector<uint8_t>> frames;  // one pixel buffer per frame
  uint16_t frameIndex = 0;                   // frame shown now
  uint16_t frameTotal = 0;                   // sprite-sheet frame count ("ft"); 0 = all
  uint16_t width = 0;                        // of every frame, in pixels
  uint16_t height = 0;
  std::string path;                          // as given to getImage / the catalogue
  uint16_t bytesPerPixel = 0;                // 3 or 4 once loaded, 0 before
  uint8_t ratio = 1;                         // animation ticks each frame is held
  uint16_t loop = 0;                         // plays of a sequence; 0 = for ever
  uint8_t loadFlags = 0;                     // kLoad* bits: how loadSequence decodes

  static constexpr uint8_t kLoadWithoutAlpha = 1;  // 3 bytes per pixel
  static constexpr uint8_t kLoadFullDepth = 2;     // keep 8-bit colour channels

  // Limits of one image or sequence, checked before anything is allocated: at most
  // 65535 pixels a side, kMaxPixels pixels in all its frames together (a 4096 x 4096
  // image, 64 MiB with alpha) and kMaxFrames frames (frameIndex is 16-bit). Larger
  // files are refused like corrupt ones: no frames, one error logged.
  static constexpr uint64_t kMaxPixels = uint64_t{1} << 24;
  static constexpr uint32_t kMaxFrames = 65535;

  // Decodes the PNG file (or sequence, see above) at `path`. Any colour type and
  // bit depth is converted. A missing, corrupt or oversized file, or one that is no
  // regular file (a FIFO, a device), gives an image without frames (width and height
  // 0, `path` set) and one error logged through spdlog's default logger naming the
  // path; never throws.
  static VContent getImage(const std::string& path, bool withAlpha, bool twelveBit);

  // Appends a width x height frame filled with one colour. With `twelveBit` the
  // colour channels are stored as r >> 4, g >> 4, b >> 4. Sets width and height
  // when the image had no frame yet. `name` is informational. A size beyond the
  // limits above adds nothing and logs an error.
  void AddFrame(const std::string& name, int width, int height, bool withAlpha, bool twelveBit,
                uint8_t r, uint8_t g, uint8_t b, uint8_t a);

  // True when the frames are in memory.
  bool isReady() const;

  // Loads the sequence named by `path` (see above) into `frames`, decoding as
  // `loadFlags` says (by default: with alpha, 12-bit). Logs and leaves the image
  // without frames when it cannot.
  void loadSequence();

  // Base directory for relative paths ("" = the working directory). Process-wide.
  static void setBaseDirectory(const std::string& dir);
  static std::string baseDirectory();
  // `path` as it will be opened: unchanged when absolute or when there is no base.
  static std::string resolvePath(const std::string& path);

  // Writes 8-bit RGB (or RGBA) pixels, rows top to bottom, as a PNG file.
  // Returns false (and logs) when the file cannot be written.
  static bool writePng(const std::string& path, uint32_t width, uint32_t height,
                       const uint8_t* pixels, bool withAlpha);
};
