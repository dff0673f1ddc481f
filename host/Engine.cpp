#include "Engine.h"

#include <cstdlib>

namespace qzhost {

// Parses a decimal integer the way the engine's number conversion does for
// the texts the translator passes: optional blanks, sign, digits; else 0.
static int64_t ParseInteger(std::u16string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == u' ' || text[i] == u'\t' || text[i] == u'\n' || text[i] == u'\r')) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == u'-' || text[i] == u'+')) negative = text[i++] == u'-';
  int64_t n = 0;
  for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
    n = n * 10 + (text[i] - u'0');
    if (n > INT32_MAX) n = INT32_MAX;
  }
  return negative ? -n : n;
}

static std::u16string DecimalText(int64_t n) {
  std::string s = std::to_string(n);
  return std::u16string(s.begin(), s.end());
}

Engine::Engine() {
  trueCell_.kind = Kind::Bool;
  trueCell_.number = 1;
  trueCell_.className = "Boolean";
  falseCell_.kind = Kind::Bool;
  falseCell_.className = "Boolean";
  for (Cell& c : argTexts_) c.className = "String";
  for (Cell& c : argInts_) {
    c.kind = Kind::Int;
    c.className = "Number";
  }
}

Value Engine::View(const std::u16string& text) {
  Cell c;
  c.kind = Kind::String;
  c.view = text;
  c.bView = true;
  c.bViewEnded = true;
  c.className = "String";
  return Make(std::move(c));
}

Value Engine::ArgText(size_t slot, std::u16string_view text, bool bEnded) {
  Cell& c = argTexts_[slot];
  c.view = text;
  c.bView = true;
  c.bViewEnded = bEnded;
  return reinterpret_cast<Value>(&c);
}

Value Engine::ArgInt(size_t slot, int64_t n) {
  argInts_[slot].number = n;
  return reinterpret_cast<Value>(&argInts_[slot]);
}

std::u16string Engine::Take(Value v) {
  Cell* c = CellOf(v);
  if (!c || c->kind != Kind::String) return ToText(v);
  std::u16string text = c->bView ? std::u16string(c->view) : std::move(c->text);
  c->text.clear();
  c->bView = false;
  return text;
}

// The NUL-ended text of a string cell; a view not known to be followed by a
// NUL is copied into the cell's own storage first.
const char16_t* Engine::EndedText(Cell* c) {
  if (!c->bView) return c->text.c_str();
  if (c->bViewEnded) return c->view.data();
  c->text.assign(c->view);
  return c->text.c_str();
}

Value Engine::Make(Cell cell) {
  cells_.push_back(std::move(cell));
  ++nCells_;
  return reinterpret_cast<Value>(&cells_.back());
}

Value Engine::Str(std::u16string text) {
  Cell c;
  c.kind = Kind::String;
  c.text = std::move(text);
  c.className = "String";
  return Make(std::move(c));
}

Value Engine::Int(int64_t n) {
  Cell c;
  c.kind = Kind::Int;
  c.number = n;
  c.className = "Number";
  return Make(std::move(c));
}

Value Engine::Array(std::vector<Value> elements) {
  Cell c;
  c.kind = Kind::Array;
  c.elements = std::move(elements);
  c.className = "Array";
  return Make(std::move(c));
}

Engine::Cell* Engine::CellOf(Value v) const {
  if (v == kTrue) return const_cast<Cell*>(&trueCell_);
  if (v == kFalse) return const_cast<Cell*>(&falseCell_);
  if (v == kNull) return nullptr;
  return reinterpret_cast<Cell*>(v);
}

bool Engine::IsString(Value v) const {
  Cell* c = CellOf(v);
  return c && c->kind == Kind::String;
}

std::u16string Engine::ToText(Value v) {
  Cell* c = CellOf(v);
  if (!c) return u"null";
  switch (c->kind) {
    case Kind::String: return std::u16string(TextOf(*c));
    case Kind::Int: return DecimalText(c->number);
    case Kind::Bool: return c->number ? u"true" : u"false";
    case Kind::Array: {
      std::u16string joined;
      for (size_t i = 0; i < c->elements.size(); ++i) {
        if (i) joined += u',';
        joined += ToText(c->elements[i]);
      }
      return joined;
    }
  }
  return u"";
}

void Engine::Drop(Mark mark) {
  while (nCells_ > mark.cells) {
    cells_.pop_back();
    --nCells_;
  }
  while (nConversions_ > mark.conversions) {
    conversions_.pop_back();
    --nConversions_;
  }
}

NativeFn Engine::Find(const std::string& name) const {
  for (const Registration& r : registrations_)
    if (r.name == name) return r.fn;
  return nullptr;
}

CallResult Engine::Call(const std::string& name, std::vector<Value> args, Value initial) {
  CallResult out{0, initial};
  NativeFn fn = Find(name);
  if (!fn) return out;
  out.ok = fn(this, nullptr, static_cast<uint32_t>(args.size()), args.data(), &out.result);
  return out;
}

// The operations themselves. The context argument is the Engine; the library
// object (slot 0) is the Engine too.
struct EngineOps {
  static Engine* Of(void* cx) { return static_cast<Engine*>(cx); }

  static intptr_t Define(void* libObj, const char* name, NativeFn fn, int nargs) {
    Engine* e = Of(libObj);
    e->registrations_.push_back({name, fn, nargs});
    return Engine::DefineResult(e->registrations_.size() - 1);
  }

  static int ToInteger(void* cx, Value v, intptr_t* out) {
    Engine::Cell* c = Of(cx)->CellOf(v);
    if (!c) { *out = 0; return 1; }
    switch (c->kind) {
      case Engine::Kind::String: *out = static_cast<intptr_t>(ParseInteger(Engine::TextOf(*c))); break;
      default: *out = static_cast<intptr_t>(c->number); break;
    }
    return 1;
  }

  static int ToBoolean(void* cx, Value v, int32_t* out) {
    Engine::Cell* c = Of(cx)->CellOf(v);
    if (!c) { *out = 0; return 1; }
    switch (c->kind) {
      case Engine::Kind::String: *out = !Engine::TextOf(*c).empty(); break;
      case Engine::Kind::Array: *out = 1; break;
      default: *out = c->number != 0; break;
    }
    return 1;
  }

  static int ToObject(void* cx, Value v, void** out) {
    *out = Of(cx)->CellOf(v);
    return 1;
  }

  static const char* ClassName(void* obj) { return static_cast<Engine::Cell*>(obj)->className; }

  static intptr_t ArrayLength(void*, void* obj) {
    Engine::Cell* c = static_cast<Engine::Cell*>(obj);
    return c->kind == Engine::Kind::Array ? static_cast<intptr_t>(c->elements.size()) : 0;
  }

  static int ArrayElement(void*, void* obj, int32_t index, Value* out) {
    Engine::Cell* c = static_cast<Engine::Cell*>(obj);
    if (c->kind != Engine::Kind::Array || index < 0 || static_cast<size_t>(index) >= c->elements.size())
      return 0;
    *out = c->elements[index];
    return 1;
  }

  static const char16_t* ToString(void* cx, Value v, int32_t* length) {
    Engine* e = Of(cx);
    Engine::Cell* c = e->CellOf(v);
    if (c && c->kind == Engine::Kind::String) {
      *length = static_cast<int32_t>(Engine::TextOf(*c).size());
      return Engine::EndedText(c);
    }
    e->conversions_.push_back(e->ToText(v));
    ++e->nConversions_;
    const std::u16string& text = e->conversions_.back();
    *length = static_cast<int32_t>(text.size());
    return text.c_str();
  }

  static int StringToValue(void* cx, const char16_t* text, size_t length, Value* out) {
    std::u16string s = length ? std::u16string(text, length) : std::u16string(text);
    *out = Of(cx)->Str(std::move(s));
    return 1;
  }
};

std::array<void*, kTableSlots> Engine::Table() {
  std::array<void*, kTableSlots> t{};
  t[kSlotLibraryObject] = this;
  t[kSlotDefineFunction] = reinterpret_cast<void*>(&EngineOps::Define);
  t[kSlotValueToInteger] = reinterpret_cast<void*>(&EngineOps::ToInteger);
  t[kSlotValueToBoolean] = reinterpret_cast<void*>(&EngineOps::ToBoolean);
  t[kSlotValueToObject] = reinterpret_cast<void*>(&EngineOps::ToObject);
  t[kSlotClassName] = reinterpret_cast<void*>(&EngineOps::ClassName);
  t[kSlotArrayLength] = reinterpret_cast<void*>(&EngineOps::ArrayLength);
  t[kSlotArrayElement] = reinterpret_cast<void*>(&EngineOps::ArrayElement);
  t[kSlotValueToString] = reinterpret_cast<void*>(&EngineOps::ToString);
  t[kSlotStringToValue] = reinterpret_cast<void*>(&EngineOps::StringToValue);
  return t;
}

}  // namespace qzhost
