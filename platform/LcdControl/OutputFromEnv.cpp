#include "OutputFromEnv.h"

#include <spdlog/spdlog.h>

#include <cstdlib>
#include <string>

#include "MemoryOutput.h"
#include "PngOutput.h"
#include "SpidevTransport.h"
#include "St7789Output.h"

std::unique_ptr<LcdOutput> outputFromEnv() {
  const char* env = std::getenv("EYE_LCD");
  const std::string choice = env ? env : "";
  if (choice.empty() || choice == "memory") return std::make_unique<MemoryOutput>();
  if (choice.rfind("png:", 0) == 0 && choice.size() > 4)
    return std::make_unique<PngOutput>(choice.substr(4));
  if (choice == "st7789" || choice.rfind("st7789:", 0) == 0) {
    const std::string options = choice.size() > 7 ? choice.substr(7) : "";
    St7789Options parsed;
    std::string error;
    if (!St7789Options::parse(options, parsed, error)) {
      spdlog::error("EYE_LCD=\"st7789:{}\": {}", options, error);
      return nullptr;
    }
    return std::make_unique<St7789Output>(makeSpidevTransport(parsed));
  }
  spdlog::error("EYE_LCD=\"{}\" names no LCD output (memory, png:DIR, st7789:OPTIONS)", choice);
  return nullptr;
}
