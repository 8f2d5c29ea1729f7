// Units (factors, lists, compound units) and measurements.
#include "MEASURE.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kvinit.h"
#include "kvtext/text.h"
#include "sysman.h"

namespace {

const char* const kSource = "System/MEASURE";

constexpr int kTypeCount = 18;      // LSB ... ElectronVolt
constexpr std::size_t kTextMax = 10;  // characters of a custom factor (and of a token)

using kvtext::is_blank;

// Lengths of the symbols LSB ... ElectronVolt.
constexpr std::size_t kSymbolLength[kTypeCount] = {3, 1, 1, 1, 2, 1, 1, 1, 1, 3, 1, 3, 3, 3, 8, 2, 7, 2};

const char* skip_blanks(const char* p) {
  while (is_blank(*p)) ++p;
  return p;
}

}  // namespace

// ---------------------------------------------------------------------------
// UnitElt

const char UnitElt::PrefixChars[12] = "TGMk munpf?";
const double UnitElt::PrefixScales[12] = {1e12, 1e9, 1e6, 1e3, 1.0, 1e-3, 1e-6, 1e-9, 1e-12, 1e-15, 1.0, 0.0};

const char* const UnitElt::UnitText[19] = {"LSB", "m",   "V",   "A",   "Hz",  "s",        "C",  "F",       "\xBA", "rad",
                                           "N",   "Ohm", "deg", "Arb", "log(Arb)", "Pa", "log(Pa)", "eV",   nullptr};
const char* const UnitElt::LowerUnitText[19] = {"lsb", "m",   "v",   "a",   "hz",  "s",        "c",  "f",       "\xBA", "rad",
                                                "n",   "ohm", "deg", "arb", "log(arb)", "pa", "log(pa)", "ev",   nullptr};

UnitElt::UnitElt() : DLlistElt(), type(CustomUnit), prefix(NoPrefix), customText(nullptr) {}

UnitElt::UnitElt(const UnitElt& other) : DLlistElt(), type(CustomUnit), prefix(NoPrefix), customText(nullptr) {
  Copy(other);
}

UnitElt::UnitElt(const char* text) : DLlistElt(), type(CustomUnit), prefix(NoPrefix), customText(nullptr) {
  Read(text != nullptr ? text : "");
}

UnitElt::UnitElt(Prefix p, UnitType t) : DLlistElt(), type(t), prefix(p), customText(nullptr) {}

UnitElt::UnitElt(UnitType t) : DLlistElt(), type(t), prefix(NoPrefix), customText(nullptr) {}

UnitElt::~UnitElt() { FreeText(); }

void UnitElt::FreeText() {
  if (customText != nullptr) {
    KvOperatorDelete(customText);
    customText = nullptr;
  }
}

UnitElt& UnitElt::Copy(const UnitElt& other) {
  if (&other == this) return *this;
  type = other.type;
  prefix = other.prefix;
  if (other.type == CustomUnit && other.customText != nullptr) {
    if (customText == nullptr)
      customText = static_cast<char*>(::operator new[](kTextMax + 1, reinterpret_cast<_FindHeap*>(this), kSource,
                                                        __LINE__));
    std::memcpy(customText, other.customText, kTextMax + 1);
  } else {
    FreeText();
  }
  return *this;
}

UnitElt& UnitElt::Change(Prefix p) {
  prefix = p;
  return *this;
}

UnitElt& UnitElt::Change(Prefix p, UnitType t) {
  prefix = p;
  type = t;
  return *this;
}

Prefix UnitElt::IndexToEnum(int index) { return static_cast<Prefix>(1u << index); }

double UnitElt::Scale() const {
  const int i = EnumToIndex(prefix);
  // A prefix that is not one of the eleven bits scales by 1.
  return (i >= 0 && i <= 10) ? PrefixScales[i] : 1.0;
}

const char* UnitElt::Read(const char* text) {
  const char* p = skip_blanks(text);
  const std::size_t length = std::strlen(p);
  ReadText(p, length);
  return p + length;
}

void UnitElt::ReadText(const char* p, std::size_t length) {
  prefix = NoPrefix;
  const char last = length > 0 ? kvtext::ascii_lower(p[length - 1]) : '\0';
  for (int t = 0; t < kTypeCount && length > 0; ++t) {
    const char* symbol = LowerUnitText[t];
    const std::size_t n = kSymbolLength[t];
    if (n > length || symbol[n - 1] != last) continue;
    // Backwards over the symbol and the text's tail, both folded.
    std::size_t k = 1;
    while (k < n && kvtext::ascii_lower(p[length - 1 - k]) == symbol[n - 1 - k]) ++k;
    if (k < n) continue;
    const std::size_t before = length - n;
    if (before > 1) continue;
    if (before == 1) {
      const char* at = static_cast<const char*>(std::memchr(PrefixChars, p[0], sizeof PrefixChars - 1));
      if (at == nullptr) continue;
      prefix = IndexToEnum(int(at - PrefixChars));
    }
    FreeText();
    type = t == DegreeText ? Degree : static_cast<UnitType>(t);
    return;
  }
  if (customText == nullptr)
    customText =
        static_cast<char*>(::operator new[](kTextMax + 1, reinterpret_cast<_FindHeap*>(this), kSource, __LINE__));
  type = CustomUnit;
  const std::size_t n = length < kTextMax ? length : kTextMax;
  std::memcpy(customText, p, n);
  customText[n] = '\0';
}

char* UnitElt::Write(char* out) const {
  char* at = out;
  if (type == CustomUnit) {
    if (customText != nullptr) {
      const std::size_t n = strnlen(customText, kTextMax);
      std::memcpy(at, customText, n);
      at += n;
    }
  } else {
    const int i = EnumToIndex(prefix);
    if (prefix != NoPrefix && i >= 0 && i <= 10) *at++ = PrefixChars[i];
    if (int(type) >= 0 && int(type) < kTypeCount) {
      const std::size_t n = std::strlen(UnitText[type]);
      std::memcpy(at, UnitText[type], n);
      at += n;
    }
  }
  *at = '\0';
  return at;
}

double UnitElt::AutoScale(double value, bool inNumerator) {
  if (prefix != AutoPrefix) return 1.0;
  for (int i = 0; PrefixScales[i] != 0.0; ++i) {
    const double s = PrefixScales[i];
    const double f = inNumerator ? 1.0 / s : s;
    const double magnitude = std::fabs(f * value);
    if (magnitude > 0.99995 && magnitude < 1000.0) {
      prefix = IndexToEnum(i);
      return f;
    }
  }
  return 1.0;
}

DLlistElt* UnitElt::DupElt(heap* h) const {
  UnitElt* copy = new (h, kSource, __LINE__) UnitElt;
  copy->Copy(*this);
  return copy;
}

// ---------------------------------------------------------------------------
// UnitList

UnitList::UnitList() : DLlist(true), singleUnit(nullptr), localUnit(), unitIters(nullptr) {}

UnitList::UnitList(const UnitList& other) : DLlist(true), singleUnit(nullptr), localUnit(), unitIters(nullptr) {
  Copy(other);
}

UnitList::~UnitList() {
  RemoveLocal();
  for (UnitIter* it = unitIters; it != nullptr; it = it->nextUnitIter) {
    it->units = nullptr;
    it->onSingle = false;
  }
  unitIters = nullptr;
}

heap* UnitList::Heap() const { return heapman_mgr::find(this); }

void UnitList::Sanity() const {
  if (singleUnit != nullptr && First() != nullptr) sys_abort("UnitList::Sanity(): check failed: Count() > 0");
  if (singleUnit == nullptr && First() != nullptr && First() == Last())
    sys_abort("UnitList::Sanity(): check failed: Not using local storage.");
}

void UnitList::RemoveLocal() {
  if (singleUnit == nullptr) return;
  // Iterators still standing on the factor must not keep it.
  for (UnitIter* it = unitIters; it != nullptr; it = it->nextUnitIter)
    if (it->onSingle) it->Bottom();
  if (singleUnit != &localUnit) delete singleUnit;
  singleUnit = nullptr;
}

UnitList& UnitList::AddNewUnit(const UnitElt& u) {
  Sanity();
  if (singleUnit == nullptr && First() == nullptr) {
    localUnit.Copy(u);
    singleUnit = &localUnit;
  } else {
    AddNewUnit(static_cast<UnitElt*>(u.DupElt(Heap())));
  }
  Sanity();
  return *this;
}

UnitList& UnitList::AddNewUnit(UnitElt* e) {
  Sanity();
  if (e == nullptr) return *this;
  if (singleUnit != nullptr) {
    UnitElt* moved = static_cast<UnitElt*>(singleUnit->DupElt(Heap()));
    // Iterators standing on the single factor follow it into the list.
    std::vector<UnitIter*> following;
    for (UnitIter* it = unitIters; it != nullptr; it = it->nextUnitIter)
      if (it->onSingle) following.push_back(it);
    for (UnitIter* it : following) it->onSingle = false;
    RemoveLocal();
    InsertEnd(moved);
    for (UnitIter* it : following) it->DLlistIter::GoTo(moved);
  }
  if (First() != nullptr)
    InsertEnd(e);
  else
    singleUnit = e;
  Sanity();
  return *this;
}

UnitList& UnitList::AddNewUnits(const UnitList& other) {
  Sanity();
  if (singleUnit == nullptr && First() == nullptr && other.NumberOfUnits() == 1) {
    localUnit.Copy(*other.FirstUnit());
    singleUnit = &localUnit;
  } else {
    // Duplicates first, so that a list can be appended to itself.
    std::vector<UnitElt*> copies;
    heap* h = Heap();
    if (other.singleUnit != nullptr)
      copies.push_back(static_cast<UnitElt*>(other.singleUnit->DupElt(h)));
    else
      for (UnitElt* e = static_cast<UnitElt*>(other.First()); e != nullptr; e = e->NextUnit())
        copies.push_back(static_cast<UnitElt*>(e->DupElt(h)));
    for (UnitElt* e : copies) AddNewUnit(e);
  }
  Sanity();
  return *this;
}

void UnitList::MoveToSingle(UnitElt* survivor) {
  // Iterators keep their place: on the survivor they stand on the single
  // factor, at an end they stay there.
  std::vector<std::pair<UnitIter*, int>> places;
  for (UnitIter* it = unitIters; it != nullptr; it = it->nextUnitIter)
    places.emplace_back(it, it->DLlistIter::Current() == survivor ? 1 : (it->DLlistIter::EOL() ? 2 : 0));
  localUnit.Copy(*survivor);
  DLlist::Clear();
  singleUnit = &localUnit;
  for (auto& [it, place] : places) {
    if (place == 1)
      it->onSingle = true;
    else if (place == 2)
      it->DLlistIter::Bottom();
  }
}

void UnitList::RemoveUnit(UnitElt* e) {
  Sanity();
  if (e == nullptr) return;
  if (singleUnit == nullptr) {
    bool member = false;
    for (DLlistElt* c = First(); c != nullptr && !member; c = static_cast<UnitElt*>(c)->NextUnit()) member = c == e;
    if (!member) return;
    DLlist::Remove(e, false);
    if (First() != nullptr && First() == Last()) MoveToSingle(static_cast<UnitElt*>(First()));
  } else if (e == singleUnit) {
    for (UnitIter* it = unitIters; it != nullptr; it = it->nextUnitIter)
      if (it->onSingle) it->Next();
    RemoveLocal();
  }
  Sanity();
}

void UnitList::Clear() {
  for (UnitIter* it = unitIters; it != nullptr; it = it->nextUnitIter) it->Top();
  RemoveLocal();
  DLlist::Clear();
}

UnitList& UnitList::Copy(const UnitList& other) {
  if (&other == this) return *this;
  Clear();
  if (other.singleUnit != nullptr) {
    localUnit.Copy(*other.singleUnit);
    singleUnit = &localUnit;
  } else {
    DLlist::Copy(other);
  }
  Sanity();
  return *this;
}

UnitElt* UnitList::FirstUnit() const {
  Sanity();
  return singleUnit != nullptr ? singleUnit : static_cast<UnitElt*>(First());
}

UnitElt* UnitList::LastUnit() const {
  Sanity();
  return singleUnit != nullptr ? singleUnit : static_cast<UnitElt*>(Last());
}

int UnitList::NumberOfUnits() const {
  Sanity();
  return singleUnit != nullptr ? 1 : Count();
}

double UnitList::Scale(const UnitList& other) const {
  Sanity();
  other.Sanity();
  if (singleUnit != nullptr && other.singleUnit != nullptr)
    return singleUnit->SameType(*other.singleUnit) ? other.singleUnit->Scale() / singleUnit->Scale() : 0.0;
  const int n = singleUnit != nullptr ? 1 : Count();
  if (n != (other.singleUnit != nullptr ? 1 : other.Count())) return 0.0;
  if (n == 0) return 1.0;
  // Each factor of this list takes the first unused factor of other with
  // the same type.
  constexpr int kLocal = 16;
  const UnitElt* localPool[kLocal];
  std::vector<const UnitElt*> heapPool;
  const UnitElt** pool = localPool;
  if (n > kLocal) {
    heapPool.resize(std::size_t(n));
    pool = heapPool.data();
  }
  int i = 0;
  for (const UnitElt* w = other.FirstUnit(); w != nullptr && i < n; w = w->NextUnit()) pool[i++] = w;
  double k = 1.0;
  for (const UnitElt* u = FirstUnit(); u != nullptr; u = u->NextUnit()) {
    int j = 0;
    while (j < n && (pool[j] == nullptr || !pool[j]->SameType(*u))) ++j;
    if (j == n) return 0.0;
    k *= pool[j]->Scale() / u->Scale();
    pool[j] = nullptr;
  }
  return k;
}

bool UnitList::operator==(const UnitList& other) const {
  // The factor is 0.0 for lists of different dimension.
  return std::fabs(Scale(other) - 1.0) < 0.001;
}

double UnitList::AutoScale(double value, bool inNumerator) {
  Sanity();
  for (UnitElt* u = FirstUnit(); u != nullptr; u = (u == singleUnit ? nullptr : u->NextUnit())) {
    const double f = u->AutoScale(value, inNumerator);
    if (f != 1.0) return f;
  }
  return 1.0;
}

// ---------------------------------------------------------------------------
// UnitIter

UnitIter::UnitIter(const UnitList* l) : DLlistIter(l), units(nullptr), onSingle(false), nextUnitIter(nullptr) {
  Attach(l);
}

UnitIter::UnitIter(UnitIter& other)
    : DLlistIter(other), units(nullptr), onSingle(false), nextUnitIter(nullptr) {
  Attach(other.units);
  onSingle = other.onSingle;
}

UnitIter::~UnitIter() { Detach(); }

UnitIter& UnitIter::operator=(UnitIter& other) {
  if (&other == this) return *this;
  DLlistIter::operator=(other);
  if (units != other.units) {
    Detach();
    Attach(other.units);
  }
  onSingle = other.onSingle;
  return *this;
}

void UnitIter::Attach(const UnitList* l) {
  units = const_cast<UnitList*>(l);
  onSingle = false;
  if (units != nullptr) {
    nextUnitIter = units->unitIters;
    units->unitIters = this;
  }
}

void UnitIter::Detach() {
  if (units != nullptr) {
    for (UnitIter** link = &units->unitIters; *link != nullptr; link = &(*link)->nextUnitIter) {
      if (*link == this) {
        *link = nextUnitIter;
        break;
      }
    }
  }
  units = nullptr;
  onSingle = false;
  nextUnitIter = nullptr;
}

bool UnitIter::SingleMode() const { return units != nullptr && units->singleUnit != nullptr; }

UnitElt* UnitIter::Current() const {
  if (onSingle) return units->singleUnit;
  return static_cast<UnitElt*>(DLlistIter::Current());
}

UnitElt* UnitIter::First() {
  if (SingleMode()) {
    onSingle = true;
    return units->singleUnit;
  }
  onSingle = false;
  return static_cast<UnitElt*>(DLlistIter::First());
}

UnitElt* UnitIter::Last() {
  if (SingleMode()) {
    onSingle = true;
    return units->singleUnit;
  }
  onSingle = false;
  return static_cast<UnitElt*>(DLlistIter::Last());
}

UnitElt* UnitIter::Next() {
  if (SingleMode()) {
    if (onSingle) {
      Bottom();
      return nullptr;
    }
    onSingle = true;
    return units->singleUnit;
  }
  onSingle = false;
  return static_cast<UnitElt*>(DLlistIter::Next());
}

UnitElt* UnitIter::Prev() {
  if (SingleMode()) {
    if (onSingle) {
      Top();
      return nullptr;
    }
    onSingle = true;
    return units->singleUnit;
  }
  onSingle = false;
  return static_cast<UnitElt*>(DLlistIter::Prev());
}

// ---------------------------------------------------------------------------
// Units

Units::Units(const Units& other) : numerator(other.numerator), denominator(other.denominator) {}

Units::Units(const char* text) { Read(text); }

Units::~Units() = default;

void Units::Clear() {
  numerator.Clear();
  denominator.Clear();
}

Units& Units::Copy(const Units& other) {
  numerator.Copy(other.numerator);
  denominator.Copy(other.denominator);
  return *this;
}

bool Units::IsScalar() const { return numerator.NumberOfUnits() == 0 && denominator.NumberOfUnits() == 0; }

const char* Units::Read(const char* text) {
  Clear();
  if (text == nullptr || *text == '\0') return nullptr;
  const char* p = text;
  bool inDenominator = false;
  for (;;) {
    // The token runs to the next separator, or to the end without its
    // trailing blanks.
    const char* at = p;
    while (*at != '\0' && *at != '*' && *at != '/') ++at;
    const bool atEnd = *at == '\0';
    std::size_t length = std::size_t(at - p);
    if (atEnd)
      while (length > 0 && is_blank(p[length - 1])) --length;
    const std::size_t capped = length < kTextMax ? length : kTextMax;
    if (capped > 0 && !(capped == 1 && p[0] == '1')) {
      // Leading blanks are skipped as UnitElt::Read skips them.
      std::size_t skip = 0;
      while (skip < capped && is_blank(p[skip])) ++skip;
      UnitList& list = inDenominator ? denominator : numerator;
      if (list.singleUnit == nullptr && list.First() == nullptr) {
        // The first factor of a list is read in place.
        list.localUnit.ReadText(p + skip, capped - skip);
        list.singleUnit = &list.localUnit;
      } else {
        UnitElt u;
        u.ReadText(p + skip, capped - skip);
        list.AddNewUnit(u);
      }
    }
    if (atEnd && capped == length) return at;
    if (!atEnd && *at == '/') inDenominator = true;
    // Past the token and one character: the separator, or the 11th
    // character of a long token.
    p += capped + 1;
  }
}

std::size_t Units::WriteSize() const {
  // A factor is at most 10 characters; each is followed by a separator or
  // the terminator; "1" may stand for an empty numerator.
  return std::size_t(numerator.NumberOfUnits() + denominator.NumberOfUnits()) * (kTextMax + 1) + 2;
}

char* Units::Write(char* out) const {
  const int n = numerator.NumberOfUnits();
  const int d = denominator.NumberOfUnits();
  char* at = out;
  *at = '\0';
  if (n == 0 && d == 0) return at;
  auto write_list = [&at](const UnitList& list) {
    bool first = true;
    for (const UnitElt* u = list.FirstUnit(); u != nullptr; u = u->NextUnit()) {
      if (!first) *at++ = '*';
      first = false;
      at = u->Write(at);
      if (u == list.singleUnit) break;
    }
  };
  if (n == 0) {
    *at++ = '1';
  } else {
    write_list(numerator);
  }
  if (d >= 1) {
    *at++ = '/';
    write_list(denominator);
  }
  *at = '\0';
  return at;
}

Units& Units::Invert() {
  Units old(*this);
  numerator.Copy(old.denominator);
  denominator.Copy(old.numerator);
  return *this;
}

double Units::operator*=(const Units& other) {
  if (&other == this) {
    const Units copy(other);
    return *this *= copy;
  }
  numerator.AddNewUnits(other.numerator);
  denominator.AddNewUnits(other.denominator);
  return Simplify();
}

double Units::operator/=(const Units& other) {
  if (&other == this) {
    const Units copy(other);
    return *this /= copy;
  }
  numerator.AddNewUnits(other.denominator);
  denominator.AddNewUnits(other.numerator);
  return Simplify();
}

double Units::Simplify() {
  if (numerator.NumberOfUnits() == 0 || denominator.NumberOfUnits() == 0) return 1.0;
  double f = 1.0;
  for (int pass = 0; pass < 2; ++pass) {
    UnitIter it(numerator);
    UnitElt* a = it.First();
    while (a != nullptr) {
      UnitElt* match = nullptr;
      UnitIter d(denominator);
      for (UnitElt* b = d.First(); b != nullptr; b = d.Next()) {
        if (pass == 0 ? *a == *b : a->SameType(*b)) {
          match = b;
          break;
        }
      }
      if (match == nullptr) {
        a = it.Next();
        continue;
      }
      if (pass == 1) f *= a->Scale() / match->Scale();
      denominator.RemoveUnit(match);
      // The iterator moves on to the factor that followed a.
      numerator.RemoveUnit(a);
      a = it.Current();
    }
  }
  return f;
}

double Units::Scale(const Units& other) const {
  const double n = numerator.Scale(other.numerator);
  const double d = denominator.Scale(other.denominator);
  if (d == 0.0) return 0.0;
  return n / d;
}

bool Units::SameType(const Units& other) const {
  return numerator.Scale(other.numerator) != 0.0 && denominator.Scale(other.denominator) != 0.0;
}

bool Units::operator==(const Units& other) const {
  return numerator == other.numerator && denominator == other.denominator;
}

Units& Units::SetAuto() {
  for (UnitList* list : {&numerator, &denominator}) {
    UnitIter it(*list);
    for (UnitElt* u = it.First(); u != nullptr; u = it.Next()) {
      if (UnitType(*u) == CustomUnit && Prefix(*u) == NoPrefix) continue;
      u->Change(AutoPrefix);
      return *this;
    }
  }
  return *this;
}

double Units::AutoScale(double value) {
  const double f = numerator.AutoScale(value, true);
  if (f != 1.0) return f;
  return denominator.AutoScale(value, false);
}

// ---------------------------------------------------------------------------
// The unit constants

#define KV_UNIT(name, text) const Units name KV_INIT(KV_PRIO_UNITS) = Units(text)
KV_UNIT(Unit_Scalar, "1");
KV_UNIT(Unit_Arb, "Arb");
KV_UNIT(Unit_LogArb, "log(Arb)");
KV_UNIT(Unit_LSB, "LSB");
KV_UNIT(Unit_V, "V");
KV_UNIT(Unit_mV, "mV");
KV_UNIT(Unit_uV, "uV");
KV_UNIT(Unit_V__LSB, "V/LSB");
KV_UNIT(Unit_V__V, "V/V");
KV_UNIT(Unit_V__s, "V/s");
KV_UNIT(Unit_uA, "uA");
KV_UNIT(Unit_nA, "nA");
KV_UNIT(Unit_pA, "pA");
KV_UNIT(Unit_nA__V, "nA/V");
KV_UNIT(Unit_pA__V, "pA/V");
KV_UNIT(Unit_mC, "mC");
KV_UNIT(Unit_Hz, "Hz");
KV_UNIT(Unit_kHz, "kHz");
KV_UNIT(Unit_MHz, "MHz");
KV_UNIT(Unit_s, "s");
KV_UNIT(Unit_ms, "ms");
KV_UNIT(Unit_us, "us");
KV_UNIT(Unit_deg, "\xBA");
KV_UNIT(Unit_nm, "nm");
KV_UNIT(Unit_um, "um");
KV_UNIT(Unit_mm, "mm");
KV_UNIT(Unit_pm, "pm");
KV_UNIT(Unit_nm__V, "nm/V");
KV_UNIT(Unit_pm__V, "pm/V");
KV_UNIT(Unit_nm__LSB, "nm/LSB");
KV_UNIT(Unit_nm__s, "nm/s");
KV_UNIT(Unit_pm__s, "pm/s");
KV_UNIT(Unit_um__s, "um/s");
KV_UNIT(Unit_N__m, "N/m");
KV_UNIT(Unit_nN, "nN");
KV_UNIT(Unit_nN__m, "nN/m");
KV_UNIT(Unit_nN__Arb, "nN/Arb");
KV_UNIT(Unit_Ohm, "Ohm");
KV_UNIT(Unit_kOhm, "kOhm");
KV_UNIT(Unit_MOhm, "MOhm");
KV_UNIT(Unit_Pascal, "Pa");
KV_UNIT(Unit_MPascal, "MPa");
KV_UNIT(Unit_GPascal, "GPa");
KV_UNIT(Unit_LogPa, "log(Pa)");
KV_UNIT(Unit_eV, "eV");
KV_UNIT(Unit_rad, "rad");
#undef KV_UNIT

// ---------------------------------------------------------------------------
// Meas

Meas::Meas(double v, const char* unitText) : value(v) { ReadUnits(unitText); }

Meas::Meas(const char* text) : value(0.0) { Read(text); }

Meas::~Meas() = default;

Meas& Meas::Copy(const Meas& other) {
  if (&other == this) return *this;
  value = other.value;
  units.Copy(other.units);
  return *this;
}

Meas& Meas::SetUnits(const Units& u) {
  units.Copy(u);
  return *this;
}

Meas& Meas::SetValue(double v) {
  value = v;
  return *this;
}

Meas& Meas::Clear() {
  value = 0.0;
  units.Clear();
  return *this;
}

double Meas::GetValue(const Units& u) const {
  const double k = units.Scale(u);
  if (k == 0.0) {
    AbortUnits(u);
    return value;
  }
  return value / k;
}

Meas Meas::ConvMeas(const Units& u) const {
  Meas result(GetValue(u), u);
  result.value *= result.units.AutoScale(result.value);
  return result;
}

Meas Meas::AutoScale() const {
  if (value == 0.0) return *this;
  Units u(units);
  u.SetAuto();
  return ConvMeas(u);
}

Meas Meas::Absolute() const { return Meas(std::fabs(value), units); }

double Meas::Sign() const { return value >= 0.0 ? 1.0 : -1.0; }

Meas Meas::Invert() const {
  Meas result(1.0 / value, units);
  result.units.Invert();
  return result;
}

Meas Meas::operator-() const { return Meas(-value, units); }

void Meas::AbortUnits(const Units& u) const {
  std::string own(units.WriteSize(), '\0');
  own.resize(std::size_t(units.Write(own.data()) - own.data()));
  std::string other(u.WriteSize(), '\0');
  other.resize(std::size_t(u.Write(other.data()) - other.data()));
  const std::string text = "Meas::AbortUnits: Units don't match, " + own + " != " + other;
  sys_abort(text.c_str());
}

Meas& Meas::operator+=(const Meas& m) {
  const double k = units.Scale(m.units);
  if (k == 0.0) {
    AbortUnits(m.units);
    return *this;
  }
  value += k * m.value;
  return *this;
}

Meas& Meas::operator-=(const Meas& m) {
  const double k = units.Scale(m.units);
  if (k == 0.0) {
    AbortUnits(m.units);
    return *this;
  }
  value -= k * m.value;
  return *this;
}

Meas& Meas::operator*=(const Meas& m) {
  value = m.value * value;
  value *= (units *= m.units);
  return *this;
}

Meas& Meas::operator/=(const Meas& m) {
  // Dividing by zero only combines the units.
  if (m.value != 0.0) value /= m.value;
  value *= (units /= m.units);
  return *this;
}

Meas& Meas::operator*=(double d) {
  value *= d;
  return *this;
}

Meas& Meas::operator/=(double d) {
  value /= d;
  return *this;
}

Meas& Meas::operator+=(double d) {
  if (!units.IsScalar()) {
    sys_abort("Meas::operator +=: scalar add not allowed");
    return *this;
  }
  value += d;
  return *this;
}

Meas& Meas::operator-=(double d) {
  if (!units.IsScalar()) {
    sys_abort("Meas::operator -=: scalar subtract not allowed");
    return *this;
  }
  value -= d;
  return *this;
}

namespace {
constexpr double kTolerance = 1e-6;
}

bool Meas::operator==(const Meas& m) const {
  if (!units.SameType(m.units)) return false;
  return std::fabs(value - m.GetValue(units)) < kTolerance;
}

bool Meas::operator<(const Meas& m) const { return value - m.GetValue(units) <= -kTolerance; }
bool Meas::operator<=(const Meas& m) const { return value - m.GetValue(units) < kTolerance; }
bool Meas::operator>(const Meas& m) const { return value - m.GetValue(units) >= kTolerance; }
bool Meas::operator>=(const Meas& m) const { return value - m.GetValue(units) > -kTolerance; }

// A dimensioned measurement compares with plain numbers only against 0.
#define KV_SCALAR_CHECK(text)                          \
  do {                                                 \
    if (d != 0.0 && !units.IsScalar()) sys_abort(text); \
  } while (0)

bool Meas::operator==(double d) const {
  KV_SCALAR_CHECK("Meas::operator ==; scalar == not allowed");
  return std::fabs(value - d) < kTolerance;
}
bool Meas::operator!=(double d) const {
  KV_SCALAR_CHECK("Meas::operator !=; scalar != not allowed");
  return !(std::fabs(value - d) < kTolerance);
}
bool Meas::operator<(double d) const {
  KV_SCALAR_CHECK("Meas::operator <; scalar < not allowed");
  return value - d <= -kTolerance;
}
bool Meas::operator<=(double d) const {
  KV_SCALAR_CHECK("Meas::operator <=; scalar <= not allowed");
  return value - d < kTolerance;
}
bool Meas::operator>(double d) const {
  KV_SCALAR_CHECK("Meas::operator >; scalar > not allowed");
  return value - d >= kTolerance;
}
bool Meas::operator>=(double d) const {
  KV_SCALAR_CHECK("Meas::operator >=; scalar >= not allowed");
  return value - d > -kTolerance;
}
#undef KV_SCALAR_CHECK

const char* Meas::Read(const char* text) {
  if (text == nullptr) return nullptr;
  const char* p = skip_blanks(text);
  if (*p == '\0') return p;
  const char* blank = p;
  while (*blank != '\0' && !is_blank(*blank)) ++blank;
  const char* rest = skip_blanks(blank);
  if (*rest != '\0') {
    ReadValue(p);
    return ReadUnits(rest);
  }
  if (*p == '+' || *p == '-' || *p == '.' || (*p >= '0' && *p <= '9')) return ReadValue(p);
  return ReadUnits(p);
}

const char* Meas::ReadValue(const char* text) {
  if (text == nullptr) return nullptr;
  char* end = nullptr;
  value = std::strtod(text, &end);
  return end;
}

const char* Meas::ReadUnits(const char* text) {
  if (text == nullptr) {
    units.Clear();
    return nullptr;
  }
  return units.Read(skip_blanks(text));
}

namespace {

// printf into a string.
std::string format_text(const char* format, ...) KVCORE_PRINTF(1, 2);
std::string format_text(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = kvtext::format_string(format, args);
  va_end(args);
  return text;
}

// A decimal number of a directive; saturates instead of overflowing.
int read_number(const char*& p) {
  long n = 0;
  while (*p >= '0' && *p <= '9') {
    if (n < 100000000L) n = n * 10 + (*p - '0');
    ++p;
  }
  return int(n);
}

}  // namespace

// The first pass: the measurement directives expanded, every other text and
// directive copied unchanged.
static std::string expand_directives(const char* format, double value, const Units& units) {
  std::string out;
  if (format == nullptr) return out;
  const char* p = format;
  while (*p != '\0') {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    const char* start = p++;
    bool blank = false, minus = false, plus = false, zero = false;
    for (;; ++p) {
      if (*p == ' ')
        blank = true;
      else if (*p == '-')
        minus = true;
      else if (*p == '+')
        plus = true;
      else if (*p == '0')
        zero = true;
      else
        break;
    }
    int width = -1;
    if (*p >= '0' && *p <= '9') width = read_number(p);
    int precision = -1;
    if (*p == '.') {
      ++p;
      if (*p == '\0')
        precision = -1;
      else if (*p >= '0' && *p <= '9')
        precision = read_number(p);
      else
        precision = 0;
    }
    const char conversion = *p;
    if (conversion == '\0') {
      // A directive cut short by the end of the format stops formatting.
      out.append(start, p);
      break;
    }
    ++p;
    if (conversion != 'U' && conversion != 'V' && conversion != 'v') {
      out.append(start, p);
      continue;
    }
    std::string sub = "%";
    if (blank) sub += ' ';
    if (minus) sub += '-';
    if (plus) sub += '+';
    if (zero) sub += '0';
    if (width > 0) sub += std::to_string(width);
    if (conversion != 'V' && precision >= 1) sub += "." + std::to_string(precision);
    if (conversion == 'v') {
      sub += 'f';
      out += format_text(sub.c_str(), value);
    } else if (conversion == 'U') {
      std::string text(units.WriteSize(), '\0');
      text.resize(std::size_t(units.Write(text.data()) - text.data()));
      sub += 's';
      out += format_text(sub.c_str(), text.c_str());
    } else {
      int digits = width > 0 ? width : 4;
      if (value == 0.0) digits = 1;
      int decimals = 0;
      if (value != 0.0) {
        const double x = digits - 1e-10 - std::log10(std::fabs(value));
        decimals = !(x > 0.0) ? 0 : (x >= 10.0 ? 10 : int(x));
      }
      const std::string number = format_text("%.*f", decimals, value);
      sub += 's';
      out += format_text(sub.c_str(), number.c_str());
    }
  }
  return out;
}

int Meas::vsprintf(char* out, const char* format, va_list args) const {
  const std::string expanded = expand_directives(format, value, units);
  return std::vsprintf(out, expanded.c_str(), args);
}

int Meas::sprintf(char* out, const char* format, ...) const {
  va_list args;
  va_start(args, format);
  const int n = vsprintf(out, format, args);
  va_end(args);
  return n;
}

int Meas::sprintf(char* out) const { return sprintf(out, "%V %U"); }

int Meas::sprintfu(const Units& u, char* out, const char* format, ...) const {
  const Meas converted = ConvMeas(u);
  va_list args;
  va_start(args, format);
  const int n = converted.vsprintf(out, format, args);
  va_end(args);
  return n;
}

int Meas::vDebug(DebugType type, const char* format, va_list args) const {
  const std::string expanded = expand_directives(format, value, units);
  std::string text;
  const int n = kvtext::format_into(text, expanded.c_str(), args, 1023);  // as through a 1024-byte buffer
  return std::max(n, 0) + ::Debug(type, "%s", text.c_str());
}

int Meas::Debug(DebugType type, const char* format, ...) const {
  va_list args;
  va_start(args, format);
  const int n = vDebug(type, format, args);
  va_end(args);
  return n;
}

int Meas::Debug(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  const int n = vDebug(dbgA, format, args);
  va_end(args);
  return n;
}

int Meas::Debug() const { return Debug("%V %U\n"); }
