// What the fuzz targets share: turning fuzz input into texts and settings, and
// a host that drives the library through its public surface only: the entry
// function with the stand-in engine's operation table, the fifteen script
// functions it registers, and the stand-in host's page scanner.
//
// Every script function call made through FuzzHost is checked against the
// conventions every host relies on (what a call does with its result value,
// which argument counts it refuses); a broken promise stops the process with
// a message, which libFuzzer and the replay driver report as a crash.
#ifndef QZFUZZ_FUZZ_HOST_H
#define QZFUZZ_FUZZ_HOST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Engine.h"

// Every fuzz target defines this; libFuzzer or the replay driver calls it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace qzfuzz {

using qzhost::Value;

// Stops the process with what went wrong when a promise does not hold.
void Check(bool bHolds, const std::string& what);

// For messages: the text as UTF-8, cut after a few hundred units.
std::string Shown(std::u16string_view text);

// The input's fields: the bytes between the separator bytes 0xFF, which
// never occur in UTF-8, so seed files can be written as UTF-8 pages.
std::vector<std::string_view> SplitFields(std::string_view bytes);

// The bytes as UTF-16, taking whatever they hold: well-formed UTF-8
// sequences decode (three-byte ones for U+D800..U+DFFF too, so lone
// surrogates reach the library), every other byte stands for the unit of
// its own value. U+0000 stays in the text.
std::u16string DecodeLoosely(std::string_view bytes);

// The settings of one translation: the arguments of beginPreTranslate and
// of endPostTranslate.
struct Settings {
  std::u16string dirStart, dirEnd;
  std::vector<std::u16string> prefixes, nonHtmlTags;
  bool bRules = false;  // pass the three rule lists (seven arguments)
  std::vector<std::u16string> ruleNames, ruleValues;
  std::vector<int64_t> ruleFlags;
  std::u16string lockBegin = u"<qz:lock code=\"%s\">";
  std::u16string lockEnd = u"</qz:lock>";
  std::u16string translatedValue = u"hilitecolor=%22Dyn%20Up-to-Date%20Color%22";
  int lockEmptyPrefixedTags = -1;  // -1: five arguments; 0 or 1: the sixth
};

// Settings chosen by a selector: selector % 4 picks php ("<?" "?>"), erb
// ("<%" "%>"), asp ("<%" "%>", the asp: prefix, the runat=server rule,
// lockEmptyPrefixedTags false) or settings read from fields, in this
// order, each optional: directive start, directive end, prefixes and
// non-HTML tags (comma-separated), lockEmptyPrefixedTags ("0", "1", or
// empty for none), rule names, rule values, rule flags (comma-separated;
// their presence makes seven arguments), lock opening format, lock closing
// text, translated value. The digits '0' to '3' select the four in order.
Settings PickSettings(uint8_t selector, const std::vector<std::string_view>& fields);

class FuzzHost {
 public:
  // A fresh engine, installed through QZ_InitWrapper.
  FuzzHost();
  FuzzHost(const FuzzHost&) = delete;
  FuzzHost& operator=(const FuzzHost&) = delete;

  // Calls a script function by name and checks the result-value and
  // argument-count conventions of that function. The result value starts
  // as kUnset so that an untouched result can be told.
  qzhost::CallResult Call(const std::string& name, std::vector<Value> args);

  // Reports every item of a scan of text to the scanner callbacks, as a
  // host does in either pass. Returns what ScanPage returns.
  bool Scan(std::u16string_view text);

  // The pre pass of a translator script over page: beginPreTranslate,
  // the scan, endPreTranslate (also after a failed begin, which it
  // closes). The labelled page, or false.
  bool Label(const Settings& settings, std::u16string_view page, std::u16string* labelled);

  // The post pass over the server's output and the merge with the page.
  // The merged page, or false.
  bool Merge(const Settings& settings, std::u16string_view page, std::u16string_view output, std::u16string* merged);

  // What a host does after a failed or abandoned translation: closes an
  // open pre pass and releases the session.
  void Close();

  Value Str(std::u16string_view text) { return engine.Str(std::u16string(text)); }
  Value StrList(const std::vector<std::u16string>& texts);

  static constexpr Value kUnset = 0x7777;  // never a value the engine makes

  qzhost::Engine engine;
};

// A whole translation with a known answer, after whatever the input did:
// the library must give exactly that answer, so no input may leave state
// behind that changes the next translation.
void CheckNextTranslationExact();

}  // namespace qzfuzz

#endif
