#include "VContent.h"

#include <fcntl.h>
#include <png.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <new>
#include <system_error>

namespace {

// Frames are addressed with 16-bit sizes and indexes. A header can claim gigabytes,
// so sizes are checked before anything is allocated (limits in VContent.h).
constexpr uint32_t kMaxDimension = 65535;
constexpr uint64_t kMaxPixels = VContent::kMaxPixels;

std::mutex& baseMutex() {
  static std::mutex m;
  return m;
}

std::string& baseDir() {
  static std::string dir;
  return dir;
}

// libpng reports through these callbacks; the text is kept for our own single log
// line and nothing reaches stderr. Plain array: the error handler longjmps away.
struct PngErrorText {
  char text[256] = {};
};

void onPngError(png_structp png, png_const_charp message) {
  auto* err = static_cast<PngErrorText*>(png_get_error_ptr(png));
  if (err) {
    std::strncpy(err->text, message ? message : "unknown error", sizeof err->text - 1);
    err->text[sizeof err->text - 1] = '\0';
  }
  png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

struct FileCloser {
  std::FILE* f = nullptr;
  ~FileCloser() {
    if (f) std::fclose(f);
  }
};

struct ReadStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  PngErrorText err;
  ~ReadStructs() {
    if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
  }
};

struct WriteStructs {
  png_structp png = nullptr;
  png_infop info = nullptr;
  PngErrorText err;
  ~WriteStructs() {
    if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
  }
};

// Decodes into 8-bit RGBA. Everything that must outlive a longjmp (buffers, libpng
// structs) belongs to the caller, so no destructor is skipped here.
bool readRgba(ReadStructs& rs, std::FILE* fp, std::vector<uint8_t>& pixels,
              std::vector<png_bytep>& rows, uint32_t& width, uint32_t& height) {
  if (setjmp(png_jmpbuf(rs.png))) return false;

  png_init_io(rs.png, fp);
  png_set_user_limits(rs.png, kMaxDimension, kMaxDimension);
  png_read_info(rs.png, rs.info);

  png_uint_32 w = 0, h = 0;
  int depth = 0, colorType = 0;
  png_get_IHDR(rs.png, rs.info, &w, &h, &depth, &colorType, nullptr, nullptr, nullptr);
  if (uint64_t{w} * h > kMaxPixels) png_error(rs.png, "image too large");

  // No gamma handling on purpose: pixels are taken as stored, gAMA is ignored.
  if (depth == 16) png_set_strip_16(rs.png);  // keeps the high byte
  if (colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(rs.png);
  if (colorType == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(rs.png);
  if (png_get_valid(rs.png, rs.info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(rs.png);
  if (!(colorType & PNG_COLOR_MASK_COLOR)) png_set_gray_to_rgb(rs.png);
  if (!(colorType & PNG_COLOR_MASK_ALPHA) && !png_get_valid(rs.png, rs.info, PNG_INFO_tRNS))
    png_set_filler(rs.png, 0xff, PNG_FILLER_AFTER);
  png_set_interlace_handling(rs.png);
  png_read_update_info(rs.png, rs.info);

  if (png_get_rowbytes(rs.png, rs.info) != size_t{w} * 4)
    png_error(rs.png, "unexpected row layout after conversion");

  pixels.resize(size_t{w} * h * 4);
  rows.resize(h);
  for (png_uint_32 y = 0; y < h; ++y) rows[y] = pixels.data() + size_t{y} * w * 4;
  png_read_image(rs.png, rows.data());
  png_read_end(rs.png, nullptr);
  width = w;
  height = h;
  return true;
}

struct Decoded {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> pixels;  // in the requested layout
};

// Reads one PNG file and converts it to the frame layout asked for by `flags`.
// Logs exactly one error naming `path` when it fails.
bool decodeFile(const std::string& path, uint8_t flags, Decoded& out) {
  const std::string file = VContent::resolvePath(path);
  FileCloser fc;
  // Non-blocking open and a type check first: a FIFO or a device named in a
  // catalogue would otherwise stall start-up or never end.
  const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat info {};
  if (fd >= 0 && (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))) {
    ::close(fd);
    spdlog::error("VContent: cannot open image {}: not a regular file", path);
    return false;
  }
  if (fd >= 0) fc.f = ::fdopen(fd, "rb");
  if (!fc.f) {
    if (fd >= 0) ::close(fd);
    spdlog::error("VContent: cannot open image {}", path);
    return false;
  }

  ReadStructs rs;
  rs.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &rs.err, onPngError, onPngWarning);
  if (rs.png) rs.info = png_create_info_struct(rs.png);
  if (!rs.png || !rs.info) {
    spdlog::error("VContent: cannot decode image {}: out of memory", path);
    return false;
  }

  std::vector<uint8_t> rgba;
  std::vector<png_bytep> rows;
  uint32_t w = 0, h = 0;
  try {
    if (!readRgba(rs, fc.f, rgba, rows, w, h)) {
      spdlog::error("VContent: cannot decode image {}: {}", path, rs.err.text);
      return false;
    }
  } catch (const std::bad_alloc&) {
    spdlog::error("VContent: cannot decode image {}: out of memory", path);
    return false;
  }

  const bool withAlpha = !(flags & VContent::kLoadWithoutAlpha);
  const bool twelveBit = !(flags & VContent::kLoadFullDepth);
  const size_t count = size_t{w} * h;
  out.width = w;
  out.height = h;
  out.pixels.resize(count * (withAlpha ? 4 : 3));
  uint8_t* dst = out.pixels.data();
  const uint8_t shift = twelveBit ? 4 : 0;
  for (size_t i = 0; i < count; ++i) {
    const uint8_t* src = &rgba[i * 4];
    *dst++ = src[0] >> shift;
    *dst++ = src[1] >> shift;
    *dst++ = src[2] >> shift;
    if (withAlpha) *dst++ = src[3];  // alpha keeps its 8 bits
  }
  return true;
}

// Copies the width x height cell number `index` (row by row) out of a sheet.
std::vector<uint8_t> cutFrame(const Decoded& sheet, uint32_t width, uint32_t height, uint32_t index,
                              size_t bpp) {
  const uint32_t columns = sheet.width / width;
  const uint32_t x0 = (index % columns) * width;
  const uint32_t y0 = (index / columns) * height;
  std::vector<uint8_t> frame(size_t{width} * height * bpp);
  const size_t rowBytes = size_t{width} * bpp;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* src = sheet.pixels.data() + ((size_t{y0} + y) * sheet.width + x0) * bpp;
    std::memcpy(frame.data() + y * rowBytes, src, rowBytes);
  }
  return frame;
}

}  // namespace

VContent VContent::getImage(const std::string& path, bool withAlpha, bool twelveBit) {
  VContent image;
  image.path = path;
  image.loadFlags =
      static_cast<uint8_t>((withAlpha ? 0 : kLoadWithoutAlpha) | (twelveBit ? 0 : kLoadFullDepth));
  // A single file is a sheet of one frame: width and height come from the file.
  image.loadSequence();
  if (image.frames.empty()) {
    image.width = 0;
    image.height = 0;
  }
  return image;
}

void VContent::AddFrame(const std::string& name, int width, int height, bool withAlpha,
                        bool twelveBit, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  if (width <= 0 || height <= 0 || width > int{kMaxDimension} || height > int{kMaxDimension} ||
      uint64_t(width) * uint64_t(height) > kMaxPixels) {
    spdlog::error("VContent: frame {} of {} x {} pixels not added", name, width, height);
    return;
  }
  const size_t bpp = withAlpha ? 4 : 3;
  if (twelveBit) {
    r >>= 4;
    g >>= 4;
    b >>= 4;
  }
  std::vector<uint8_t> frame(size_t(width) * size_t(height) * bpp);
  for (size_t i = 0; i < frame.size(); i += bpp) {
    frame[i] = r;
    frame[i + 1] = g;
    frame[i + 2] = b;
    if (withAlpha) frame[i + 3] = a;
  }
  if (frames.empty()) {
    this->width = static_cast<uint16_t>(width);
    this->height = static_cast<uint16_t>(height);
    bytesPerPixel = static_cast<uint16_t>(bpp);
  }
  frames.push_back(std::move(frame));
}

bool VContent::isReady() const {
  return !frames.empty();
}

void VContent::loadSequence() {
  frames.clear();
  frameIndex = 0;
  bytesPerPixel = 0;
  const size_t bpp = (loadFlags & kLoadWithoutAlpha) ? 3 : 4;

  try {
    std::error_code ec;
    const std::filesystem::path resolved(resolvePath(path));
    if (!path.empty() && std::filesystem::is_directory(resolved, ec)) {
      std::vector<std::string> names;
      for (std::filesystem::directory_iterator it(resolved, ec), end; !ec && it != end;
           it.increment(ec)) {
        const auto& p = it->path();
        std::error_code fileError;
        if (p.extension() == ".png" && it->is_regular_file(fileError))
          names.push_back(p.filename().string());
      }
      if (ec) {
        spdlog::error("VContent: cannot read image directory {}: {}", path, ec.message());
        return;
      }
      std::sort(names.begin(), names.end());  // byte-wise, as std::string compares
      if (names.empty()) {
        spdlog::error("VContent: no PNG frames in {}", path);
        return;
      }
      std::vector<std::vector<uint8_t>> loaded;
      uint32_t w = 0, h = 0;
      uint64_t pixels = 0;
      const std::string dir = path.back() == '/' ? path : path + "/";
      for (const auto& name : names) {
        Decoded frame;
        if (!decodeFile(dir + name, loadFlags, frame)) continue;
        if (loaded.empty()) {
          w = frame.width;
          h = frame.height;
        } else if (frame.width != w || frame.height != h) {
          spdlog::error("VContent: frame {}{} is {} x {}, not {} x {}; skipped", dir, name,
                        frame.width, frame.height, w, h);
          continue;
        }
        pixels += uint64_t{w} * h;
        if (pixels > kMaxPixels || loaded.size() == kMaxFrames) {
          spdlog::error("VContent: sequence {} is larger than {} pixels or {} frames; not loaded",
                        path, kMaxPixels, kMaxFrames);
          return;
        }
        loaded.push_back(std::move(frame.pixels));
      }
      if (loaded.empty()) return;
      frames = std::move(loaded);
      width = static_cast<uint16_t>(w);
      height = static_cast<uint16_t>(h);
      bytesPerPixel = static_cast<uint16_t>(bpp);
      return;
    }

    Decoded sheet;
    if (!decodeFile(path, loadFlags, sheet)) return;
    if (width == 0 || height == 0) {
      width = static_cast<uint16_t>(sheet.width);
      height = static_cast<uint16_t>(sheet.height);
      frames.push_back(std::move(sheet.pixels));
      bytesPerPixel = static_cast<uint16_t>(bpp);
      return;
    }
    const uint32_t fit = (sheet.width / width) * (sheet.height / height);
    uint32_t count = fit;
    if (frameTotal != 0) {
      if (frameTotal > fit)
        spdlog::error("VContent: sheet {} holds {} frames of {} x {}, not {}", path, fit, width,
                      height, frameTotal);
      count = std::min<uint32_t>(frameTotal, fit);
    }
    if (count > kMaxFrames) {
      spdlog::error("VContent: sheet {} holds {} frames, more than {}; not loaded", path, count,
                    kMaxFrames);
      return;
    }
    if (count == 0) {
      spdlog::error("VContent: sheet {} ({} x {}) is smaller than one {} x {} frame", path,
                    sheet.width, sheet.height, width, height);
      return;
    }
    frames.reserve(count);
    for (uint32_t i = 0; i < count; ++i) frames.push_back(cutFrame(sheet, width, height, i, bpp));
    bytesPerPixel = static_cast<uint16_t>(bpp);
  } catch (const std::exception& e) {
    frames.clear();
    bytesPerPixel = 0;
    spdlog::error("VContent: cannot load {}: {}", path, e.what());
  }
}

void VContent::setBaseDirectory(const std::string& dir) {
  std::lock_guard<std::mutex> lock(baseMutex());
  baseDir() = dir;
}

std::string VContent::baseDirectory() {
  std::lock_guard<std::mutex> lock(baseMutex());
  return baseDir();
}

std::string VContent::resolvePath(const std::string& path) {
  if (path.empty() || path.front() == '/') return path;
  const std::string base = baseDirectory();
  if (base.empty()) return path;
  return base.back() == '/' ? base + path : base + "/" + path;
}

bool VContent::writePng(const std::string& path, uint32_t width, uint32_t height,
                        const uint8_t* pixels, bool withAlpha) {
  if (!pixels || width == 0 || height == 0 || width > kMaxDimension || height > kMaxDimension) {
    spdlog::error("VContent: cannot write {}: no {} x {} image", path, width, height);
    return false;
  }
  // Written where the caller says: the base directory is for reading catalogue images,
  // and output (LCD frames, drawn assets) must not land in the configuration directory.
  const std::string& file = path;
  bool written = false;
  {
    FileCloser fc;
    fc.f = std::fopen(file.c_str(), "wb");
    if (!fc.f) {
      spdlog::error("VContent: cannot write {}: {}", path, std::strerror(errno));
      return false;
    }
    WriteStructs ws;
    ws.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &ws.err, onPngError, onPngWarning);
    if (ws.png) ws.info = png_create_info_struct(ws.png);
    if (ws.png && ws.info) {
      std::vector<png_bytep> rows(height);
      const size_t rowBytes = size_t{width} * (withAlpha ? 4 : 3);
      for (uint32_t y = 0; y < height; ++y)
        rows[y] = const_cast<png_bytep>(pixels + size_t{y} * rowBytes);
      written = [&]() {
        if (setjmp(png_jmpbuf(ws.png))) return false;
        png_init_io(ws.png, fc.f);
        png_set_IHDR(ws.png, ws.info, width, height, 8,
                     withAlpha ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(ws.png, ws.info);
        png_write_image(ws.png, rows.data());
        png_write_end(ws.png, nullptr);
        return true;
      }();
    } else {
      std::strncpy(ws.err.text, "out of memory", sizeof ws.err.text - 1);
    }
    if (written && std::fflush(fc.f) != 0) {
      std::strncpy(ws.err.text, std::strerror(errno), sizeof ws.err.text - 1);
      written = false;
    }
    if (!written) spdlog::error("VContent: cannot write {}: {}", path, ws.err.text);
  }
  if (!written) std::remove(file.c_str());
  return written;
}
