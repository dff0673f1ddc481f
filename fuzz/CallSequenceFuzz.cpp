// Random call sequences of the fifteen script functions with random
// arguments, through the stand-in engine, as a broken or hostile translator
// script could make them: any order, any argument count, any values, host
// tables with operations missing. No sequence may crash the library, trip
// its assertions or break a script function's conventions, and once a host
// has closed the session (endPreTranslate, cleanup) the next translation
// must come out exactly as always.
//
// Input: a program, then the texts it uses, each after a 0xFF byte (at
// least the empty text is there). The program is a list of steps, one byte
// each, then their operands (a missing byte reads as 0):
//   0..14  call that script function (registration order: initialize,
//          beginPreTranslate, endPreTranslate, setLineEndingsToMatch,
//          replaceTextInsideTag, beginPostTranslate, endPostTranslate,
//          cleanup, directive, openTagBegin, openTagEnd, attribute,
//          closeTagBegin, closeTagEnd, text): a count byte (% 8), then as
//          many values
//   15     scan the text of one value through the callbacks
//   16     install a host table again: a byte names a slot to leave empty
//          (% 9 of 1, 3, 5, 6, 9, 11, 12, 17, 18) and, with its high bit
//          set, the table is cut to that byte's low six bits in bytes
// A step byte counts modulo 17. A value is a kind byte (% 11), then:
//   0 null, 1 true, 2 false, 3 an integer of one signed byte, 4 of four
//   bytes, 5 a text (byte: index), 6 an earlier text result (byte: index),
//   7 an array of texts (count byte % 5, index bytes), 8 an array of small
//   integers (count byte % 5, bytes), 9 an array of values (count byte % 4,
//   values, at most two deep), 10 an integer of eight bytes.
#include <cstring>
#include <string>

#include "FuzzHost.h"

// The library's one entry function, as every host declares it.
extern "C" intptr_t QZ_InitWrapper(void* const* table, uint32_t sizeInBytes);

using namespace qzfuzz;

namespace {

const char* const kFunctions[15] = {
    "initialize", "beginPreTranslate", "endPreTranslate", "setLineEndingsToMatch", "replaceTextInsideTag",
    "beginPostTranslate", "endPostTranslate", "cleanup", "directive", "openTagBegin",
    "openTagEnd", "attribute", "closeTagBegin", "closeTagEnd", "text",
};

// Slot 0, the library object, is what the engine's define operation needs
// to register anything; a host always has it.
constexpr int kClearableSlots[9] = {1, 3, 5, 6, 9, 11, 12, 17, 18};

constexpr size_t kMostSteps = 512;
constexpr size_t kMostResults = 16;

class Program {
 public:
  Program(std::string_view code, std::vector<std::u16string> texts) : code_(code), texts_(std::move(texts)) {}

  void Run() {
    for (size_t nSteps = 0; at_ < code_.size() && nSteps < kMostSteps; ++nSteps) Step();
    host_.Close();
  }

 private:
  uint8_t Next() { return at_ < code_.size() ? static_cast<uint8_t>(code_[at_++]) : 0; }

  template <typename T>
  T NextWord() {
    uint8_t bytes[sizeof(T)];
    for (uint8_t& b : bytes) b = Next();
    T word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
  }

  Value NextValue(int depth) {
    switch (Next() % 11) {
      case 0: return qzhost::kNull;
      case 1: return qzhost::kTrue;
      case 2: return qzhost::kFalse;
      case 3: return host_.engine.Int(static_cast<int8_t>(Next()));
      case 4: return host_.engine.Int(NextWord<int32_t>());
      case 5: return host_.engine.Str(texts_[Next() % texts_.size()]);
      case 6: return results_.empty() ? qzhost::kNull : results_[Next() % results_.size()];
      case 7: {
        std::vector<Value> items;
        for (int n = Next() % 5; n > 0; --n) items.push_back(host_.engine.Str(texts_[Next() % texts_.size()]));
        return host_.engine.Array(std::move(items));
      }
      case 8: {
        std::vector<Value> items;
        for (int n = Next() % 5; n > 0; --n) items.push_back(host_.engine.Int(static_cast<int8_t>(Next())));
        return host_.engine.Array(std::move(items));
      }
      case 9: {
        std::vector<Value> items;
        for (int n = Next() % 4; n > 0 && depth < 2; --n) items.push_back(NextValue(depth + 1));
        return host_.engine.Array(std::move(items));
      }
      default: return host_.engine.Int(NextWord<int64_t>());
    }
  }

  void Step() {
    const uint8_t step = Next() % 17;
    if (step < 15) {
      std::vector<Value> args;
      for (int n = Next() % 8; n > 0; --n) args.push_back(NextValue(0));
      qzhost::CallResult r = host_.Call(kFunctions[step], std::move(args));
      if (r.ok && r.result != FuzzHost::kUnset && host_.engine.IsString(r.result) && results_.size() < kMostResults) results_.push_back(r.result);
      return;
    }
    if (step == 15) {
      host_.Scan(host_.engine.ToText(NextValue(0)));
      return;
    }
    std::array<void*, qzhost::kTableSlots> table = host_.engine.Table();
    const uint8_t how = Next();
    table[kClearableSlots[how % 9]] = nullptr;
    const uint32_t size = how & 0x80 ? (how & 0x3F) : static_cast<uint32_t>(sizeof table);
    QZ_InitWrapper(table.data(), size);
  }

  std::string_view code_;
  size_t at_ = 0;
  std::vector<std::u16string> texts_;
  std::vector<Value> results_;
  FuzzHost host_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string_view> fields = SplitFields(std::string_view(reinterpret_cast<const char*>(data), size));
  std::vector<std::u16string> texts;
  for (size_t k = 1; k < fields.size(); ++k) texts.push_back(DecodeLoosely(fields[k]));
  if (texts.empty()) texts.emplace_back();
  Program(fields[0], std::move(texts)).Run();
  CheckNextTranslationExact();
  return 0;
}
