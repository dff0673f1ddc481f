// The library's own work, apart from scanning and from any engine: the
// scanner's events of both passes are recorded once, as ready-made argument
// values, and replayed straight into the natives.
#ifndef QZBENCH_REPLAY_H
#define QZBENCH_REPLAY_H

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "HostContract.h"
#include "Profile.h"

namespace qzbench {

// A value as the replay host hands it to the library: a text (NUL-ended),
// a number or an array of values.
struct ReplayValue {
  const char16_t* text = nullptr;
  int32_t length = 0;
  intptr_t number = 0;
  const std::vector<ScriptValue>* elements = nullptr;
};

struct ReplayEvent {
  Native fn;
  uint32_t argc;
  ScriptValue argv[2];
};

class Replay {
 public:
  // Records both passes of a translation of page under profile, with
  // StandInServer as the server. False when the library refuses any step.
  bool Record(const std::u16string& page, const qzhost::Profile& profile);
  // One whole translation, initialize to cleanup; false when a native fails.
  bool Run();
  const std::u16string& Merged() const { return result_; }

 private:
  ScriptValue Text(std::u16string text);
  ScriptValue Number(intptr_t n);
  ScriptValue Array(std::vector<ScriptValue> elements);
  bool Call(const char* name, std::vector<ScriptValue> args);
  bool RunPre();
  bool RunPost();

  friend struct ReplayOps;
  std::map<std::string, Native> natives_;
  std::deque<std::u16string> texts_;
  std::deque<std::vector<ScriptValue>> arrays_;
  std::deque<ReplayValue> values_;
  std::vector<ScriptValue> preSettings_, postArgs_;
  ScriptValue page_ = 0;
  std::vector<ReplayEvent> pre_, post_;
  std::u16string result_;
};

}  // namespace qzbench

#endif
