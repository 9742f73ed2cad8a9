// TMemStorage: the smallest chain end, which keeps everything it is given in memory, for a
// caller that runs a short sample through a real chain and looks at the result.
#pragma once

#include <string>

#include "framework/upstream.h"

namespace sonvex {

class IMemStorage {
public:
  virtual ~IMemStorage() = default;
  // A copy of all data written, or nothing when no format was ever announced.
  virtual std::string GetData() = 0;
};

class TMemStorage : public TUpStream, public IMemStorage {
public:
  static std::shared_ptr<TMemStorage> Create() { return std::make_shared<TMemStorage>(); }

  bool InitAudio(const std::string&, uint32_t, uint32_t, uint32_t, bool, int64_t) override {
    formatReceived = true;
    return true;
  }
  bool Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) override {
    bool was = valid;
    if (valid) StoreData(0, data, size);  // a failed store goes unnoticed
    return was;
  }
  bool Finish() override { return true; }
  std::string GetData() override {
    if (!formatReceived || BufferFill(0) == 0) return {};
    return std::string(reinterpret_cast<const char*>(BufferData(0)), BufferFill(0));
  }

private:
  bool formatReceived = false;
};

}  // namespace sonvex
