// Compound physical units and measurements.
//
// A unit factor (UnitElt) is a unit type with an SI prefix, or a custom text
// of at most 10 characters. A UnitList holds the factors of a numerator or a
// denominator; Units is a numerator list over a denominator list ("nm/V",
// "1/s", "m*m"). There are no exponents: a square is two equal factors.
// Dimensional compatibility is decided factor by factor, by unit type only.
//
// Meas pairs a double with Units: conversion between compatible units,
// arithmetic that checks units (a mismatch ends in sys_abort), absolute
// comparisons, reading ("5 nm") and a printf-like formatter with the
// directives %V (value to significant digits), %U (unit text) and %v (value,
// fixed point).
//
//   Meas d(5000, "nm");
//   Meas a = d.AutoScale();          // 5 um
//   char text[64];
//   a.sprintf(text);                 // "5.000 um"
//   double k = Units("nm/V").Scale(Units("um/mV"));   // 1e6
#pragma once

#include <cstdarg>
#include <cstddef>

#include "DebugManager.h"
#include "KvExport.h"
#include "LIST.h"

// SI prefixes. Each value is one bit; the bit's position indexes the prefix
// tables. AutoPrefix marks a factor whose prefix AutoScale is still to choose
// (it scales by 1 and is written "?").
enum Prefix : int {
  Tera = 1,
  Giga = 2,
  Mega = 4,
  Kilo = 8,
  NoPrefix = 16,
  Milli = 32,
  Micro = 64,
  Nano = 128,
  Pico = 256,
  Femto = 512,
  AutoPrefix = 1024
};

// Unit types. CustomUnit factors carry their own text.
enum UnitType : int {
  LSB = 0,
  Meter,
  Volt,
  Ampere,
  Hertz,
  Second,
  Coulomb,
  Farad,
  Degree,  // written as the single byte 0xBA
  Radian,
  Newton,
  Ohm,
  DegreeText,  // written "deg"; reading "deg" gives Degree
  Arb,
  LogArb,
  Pascal,
  LogPascal,
  ElectronVolt,
  CustomUnit
};

class UnitList;
class UnitIter;

// One unit factor; an element of a UnitList.
class KVCORE_API UnitElt : public DLlistElt {
 public:
  // Type and prefix must be set (Change, Copy, Read) before the factor is
  // used; until then it reads as an empty custom factor.
  UnitElt();
  // Copies type, prefix and custom text; the copy is in no list.
  UnitElt(const UnitElt& other);
  explicit UnitElt(const char* text);
  UnitElt(Prefix prefix, UnitType type);
  explicit UnitElt(UnitType type);
  ~UnitElt() override;

  // Type and prefix, and the text of a custom source (this factor's text
  // buffer is allocated when missing); any buffer is freed otherwise.
  UnitElt& Copy(const UnitElt& other);
  UnitElt& operator=(const UnitElt& other) { return Copy(other); }

  UnitElt& Change(Prefix prefix);
  UnitElt& Change(Prefix prefix, UnitType type);
  operator Prefix() const { return prefix; }
  operator UnitType() const { return type; }
  // The custom text; null for a factor of a known type.
  const char* CustomText() const { return customText; }

  // Same type, prefixes ignored; custom factors are all of one type.
  bool SameType(const UnitElt& other) const { return type == other.type; }
  // Type and prefix (custom texts are not compared).
  bool operator==(const UnitElt& other) const { return type == other.type && prefix == other.prefix; }
  bool operator!=(const UnitElt& other) const { return !(*this == other); }

  // The prefix's scale (1e12 ... 1e-15; 1 for NoPrefix and AutoPrefix).
  double Scale() const;

  // Reads one factor from the whole text: a type symbol at the end of the
  // text, matched ignoring case, with at most one prefix character before it
  // (case-sensitive); anything else becomes a custom factor holding the
  // first 10 characters. Returns the end of the text.
  const char* Read(const char* text);
  // Writes prefix and symbol (or the custom text) and a terminator; returns
  // the terminator's address. At most 11 bytes are written.
  char* Write(char* out) const;

  // For an AutoPrefix factor: chooses the largest prefix that leaves the
  // value (given in the unscaled unit) a magnitude of at least 0.99995 and
  // below 1000, and returns the factor to multiply the value by. 1.0 (and
  // nothing changed) when the prefix is not AutoPrefix or no prefix fits.
  double AutoScale(double value, bool inNumerator);

  // The following factor in the holding list.
  UnitElt* NextUnit() const { return static_cast<UnitElt*>(Next()); }

  DLlistElt* DupElt(heap* h) const override;

  // Position of the highest set bit (0 for Tera ... 10 for AutoPrefix), -1 for 0.
  static int EnumToIndex(Prefix prefix) {
    const unsigned v = unsigned(prefix);
    return v == 0 ? -1 : 31 - __builtin_clz(v);
  }
  static Prefix IndexToEnum(int index);

  // Written symbols of the types LSB ... ElectronVolt, and their lower-case
  // forms used when reading; both end with a null entry.
  static const char* const UnitText[19];
  static const char* const LowerUnitText[19];

 private:
  friend class Units;
  // Reads the factor from exactly length characters (no leading blanks).
  void ReadText(const char* p, std::size_t length);
  void FreeText();

  UnitType type;
  Prefix prefix;
  char* customText;  // 11 bytes, only for CustomUnit

  static const char PrefixChars[12];     // "TGMk munpf?"
  static const double PrefixScales[12];  // the scales, then 0.0
};

// The factors of a numerator or denominator. A single factor is kept in a
// slot of its own (normally the embedded localUnit, so no heap element is
// needed); two or more are kept in the list, in insertion order. The list
// owns its elements; new elements come from the tracked heap that holds the
// list.
class KVCORE_API UnitList : public DLlist {
 public:
  UnitList();
  UnitList(const UnitList& other);
  ~UnitList() override;
  UnitList& operator=(const UnitList& other) { return Copy(other); }

  // Adds a copy of u at the end.
  UnitList& AddNewUnit(const UnitElt& u);
  // Takes ownership of e (a heap element in no list) and adds it at the end.
  UnitList& AddNewUnit(UnitElt* e);
  // Adds copies of every factor of other, in order.
  UnitList& AddNewUnits(const UnitList& other);
  // Removes and destroys e when it is a factor of this list; iterators
  // standing on it move to the following factor.
  void RemoveUnit(UnitElt* e);
  void Clear();
  UnitList& Copy(const UnitList& other);

  UnitElt* FirstUnit() const;
  UnitElt* LastUnit() const;
  int NumberOfUnits() const;

  // The factor k such that a value in other times k is the same quantity in
  // this list's units; 0.0 when the lists differ in dimension.
  double Scale(const UnitList& other) const;
  bool SameType(const UnitList& other) const { return Scale(other) != 0.0; }
  // Same type and a conversion factor within 0.001 of 1.
  bool operator==(const UnitList& other) const;
  bool operator!=(const UnitList& other) const { return !(*this == other); }

  // AutoScale of each factor in turn; the first factor other than 1.0, or 1.0.
  double AutoScale(double value, bool inNumerator);

 protected:
  // Releases the single slot (destroying a heap element held there).
  void RemoveLocal();
  // Checks the single-slot invariant; sys_abort when it is broken.
  void Sanity() const;

 private:
  friend class UnitIter;
  friend class Units;
  heap* Heap() const;
  void MoveToSingle(UnitElt* survivor);

  UnitElt* singleUnit;  // the only factor, or null
  UnitElt localUnit;    // storage for a single factor
  UnitIter* unitIters;  // iterators walking this list
};

// Walks the factors of a UnitList, whichever way the list keeps them. On a
// single-factor list, Next() and Prev() go to the factor from either end and
// to the end from the factor.
class KVCORE_API UnitIter : public DLlistIter {
 public:
  explicit UnitIter(const UnitList* l);
  explicit UnitIter(const UnitList& l) : UnitIter(&l) {}
  UnitIter(UnitIter& other);
  ~UnitIter() override;
  UnitIter& operator=(UnitIter& other);

  UnitElt* First();
  UnitElt* Last();
  UnitElt* Next();
  UnitElt* Prev();
  UnitElt* Current() const;
  UnitIter& operator++() {
    Next();
    return *this;
  }
  UnitIter& operator--() {
    Prev();
    return *this;
  }
  bool operator!() const { return Current() == nullptr; }
  operator int() const { return Current() != nullptr ? 1 : 0; }
  bool BOL() const { return !onSingle && DLlistIter::BOL(); }
  bool EOL() const { return !onSingle && DLlistIter::EOL(); }
  void Top() {
    onSingle = false;
    DLlistIter::Top();
  }
  void Bottom() {
    onSingle = false;
    DLlistIter::Bottom();
  }

 private:
  friend class UnitList;
  // Changing the list through an iterator would bypass the single slot.
  using DLlistIter::ClearList;
  using DLlistIter::Extract;
  using DLlistIter::GoTo;
  using DLlistIter::InsertAfter;
  using DLlistIter::InsertBefore;
  using DLlistIter::Remove;

  void Attach(const UnitList* l);
  void Detach();
  bool SingleMode() const;

  UnitList* units;       // the list walked, or null
  bool onSingle;         // standing on the list's single factor
  UnitIter* nextUnitIter;  // link in the list's registry
};

// A compound unit: numerator factors over denominator factors. Both empty is
// the scalar (dimensionless) unit.
class KVCORE_API Units {
 public:
  Units() = default;
  Units(const Units& other);
  Units(const char* text);  // NOLINT: units convert from their text
  virtual ~Units();
  Units& operator=(const Units& other) { return Copy(other); }

  // Reads "nm/V", "1/s", "nN/m*s", ... Every factor after the first "/" is
  // in the denominator. A factor text longer than 10 characters is cut (its
  // 11th character is skipped); unknown factors become custom factors.
  // Returns the end of the text; null for a null or empty text. The units
  // are cleared in any case.
  const char* Read(const char* text);
  // Writes the unit text ("" for the scalar unit, "1/s" without numerator)
  // and returns the terminator's address. The caller provides WriteSize()
  // bytes.
  char* Write(char* out) const;
  // Bytes that Write needs, terminator included.
  std::size_t WriteSize() const;

  void Clear();
  Units& Copy(const Units& other);
  bool IsScalar() const;
  // Exchanges numerator and denominator.
  Units& Invert();

  // Multiply / divide by other and cancel (Simplify); return the factor by
  // which a value in the old units is multiplied to be in the new ones.
  double operator*=(const Units& other);
  double operator/=(const Units& other);
  // Cancels equal factors, then factors of the same type with a scale
  // factor; returns that factor (1.0 when nothing was scaled).
  double Simplify();

  // Numerator factor over denominator factor: a value in other times the
  // result is the same quantity in these units; 0.0 when incompatible.
  double Scale(const Units& other) const;
  bool SameType(const Units& other) const;
  // Equal factor by factor within 0.001 ("nm" != "um").
  bool operator==(const Units& other) const;
  bool operator!=(const Units& other) const { return !(*this == other); }

  // Marks one factor (the first numerator factor, else the first
  // denominator factor, that is not a custom one) with AutoPrefix.
  Units& SetAuto();
  // Chooses the marked factor's prefix for value; returns the factor to
  // multiply the value by.
  double AutoScale(double value);

  const UnitList& Numerator() const { return numerator; }
  const UnitList& Denominator() const { return denominator; }

 private:
  UnitList numerator;
  UnitList denominator;
};

// A physical quantity: a value in units.
class KVCORE_API Meas {
 public:
  Meas() : value(0.0) {}
  Meas(int v) : value(v) {}     // NOLINT: plain numbers are scalar measurements
  Meas(long v) : value(double(v)) {}  // NOLINT
  Meas(float v) : value(v) {}   // NOLINT
  Meas(double v) : value(v) {}  // NOLINT
  Meas(double v, const Units& u) : value(v), units(u) {}
  Meas(double v, const char* unitText);
  // Value 0 and scalar units, then Read(text).
  explicit Meas(const char* text);
  Meas(const Meas& other) : value(other.value), units(other.units) {}
  virtual ~Meas();

  virtual Meas& Copy(const Meas& other);
  Meas& operator=(const Meas& other) { return Copy(other); }
  // Replace the units only (the value is not converted).
  Meas& operator=(const Units& u) { return SetUnits(u); }
  Meas& SetUnits(const Units& u);
  // Replace the value only.
  Meas& operator=(double v) { return SetValue(v); }
  Meas& SetValue(double v);
  Meas& Clear();

  double GetValue() const { return value; }
  operator double() const { return value; }
  const Units& GetUnits() const { return units; }
  operator Units() const { return units; }
  // The value expressed in u; sys_abort when u is incompatible.
  double GetValue(const Units& u) const;
  // Converted to u; a factor of u marked AutoPrefix gets its prefix chosen.
  Meas ConvMeas(const Units& u) const;
  // Converted to the prefix that suits the value (5000 nm -> 5 um).
  Meas AutoScale() const;
  bool IsScalar() const { return units.IsScalar(); }

  Meas Absolute() const;
  // -1.0 unless the value is >= 0 (so -1.0 for NaN).
  double Sign() const;
  // 1/value in the inverted units.
  Meas Invert() const;
  Meas operator-() const;

  // sys_abort("Meas::AbortUnits: Units don't match, <own> != <u>").
  void AbortUnits(const Units& u) const;

  // Arithmetic between measurements; + and - need compatible units and keep
  // the left operand's units. Dividing by a zero measurement only combines
  // the units.
  Meas& operator+=(const Meas& m);
  Meas& operator-=(const Meas& m);
  Meas& operator*=(const Meas& m);
  Meas& operator/=(const Meas& m);
  Meas operator+(const Meas& m) const { return Meas(*this) += m; }
  Meas operator-(const Meas& m) const { return Meas(*this) -= m; }
  Meas operator*(const Meas& m) const { return Meas(*this) *= m; }
  Meas operator/(const Meas& m) const { return Meas(*this) /= m; }

  // Scaling by plain numbers keeps the units.
  Meas& operator*=(double d);
  Meas& operator/=(double d);
  Meas& operator*=(int d) { return *this *= double(d); }
  Meas& operator*=(long d) { return *this *= double(d); }
  Meas& operator*=(float d) { return *this *= double(d); }
  Meas& operator/=(int d) { return *this /= double(d); }
  Meas& operator/=(long d) { return *this /= double(d); }
  Meas& operator/=(float d) { return *this /= double(d); }
  Meas operator*(double d) const { return Meas(*this) *= d; }
  Meas operator*(int d) const { return Meas(*this) *= double(d); }
  Meas operator*(long d) const { return Meas(*this) *= double(d); }
  Meas operator*(float d) const { return Meas(*this) *= double(d); }
  Meas operator/(double d) const { return Meas(*this) /= d; }
  Meas operator/(int d) const { return Meas(*this) /= double(d); }
  Meas operator/(long d) const { return Meas(*this) /= double(d); }
  Meas operator/(float d) const { return Meas(*this) /= double(d); }

  // Adding plain numbers: only to a scalar measurement (sys_abort otherwise).
  Meas& operator+=(double d);
  Meas& operator-=(double d);
  Meas& operator+=(int d) { return *this += double(d); }
  Meas& operator+=(long d) { return *this += double(d); }
  Meas& operator+=(float d) { return *this += double(d); }
  Meas& operator-=(int d) { return *this -= double(d); }
  Meas& operator-=(long d) { return *this -= double(d); }
  Meas& operator-=(float d) { return *this -= double(d); }
  Meas operator+(double d) const { return Meas(*this) += d; }
  Meas operator+(int d) const { return Meas(*this) += double(d); }
  Meas operator+(long d) const { return Meas(*this) += double(d); }
  Meas operator+(float d) const { return Meas(*this) += double(d); }
  Meas operator-(double d) const { return Meas(*this) -= d; }
  Meas operator-(int d) const { return Meas(*this) -= double(d); }
  Meas operator-(long d) const { return Meas(*this) -= double(d); }
  Meas operator-(float d) const { return Meas(*this) -= double(d); }

  // Comparisons convert m to these units (sys_abort when incompatible;
  // == and != answer "different" instead) and use an absolute tolerance of
  // 1e-6 in these units.
  bool operator==(const Meas& m) const;
  bool operator!=(const Meas& m) const { return !(*this == m); }
  bool operator<(const Meas& m) const;
  bool operator<=(const Meas& m) const;
  bool operator>(const Meas& m) const;
  bool operator>=(const Meas& m) const;

  // Comparisons with plain numbers: a dimensioned measurement compares only
  // with 0 (sys_abort otherwise).
  bool operator==(double d) const;
  bool operator!=(double d) const;
  bool operator<(double d) const;
  bool operator<=(double d) const;
  bool operator>(double d) const;
  bool operator>=(double d) const;
  bool operator==(int d) const { return *this == double(d); }
  bool operator!=(int d) const { return *this != double(d); }
  bool operator<(int d) const { return *this < double(d); }
  bool operator<=(int d) const { return *this <= double(d); }
  bool operator>(int d) const { return *this > double(d); }
  bool operator>=(int d) const { return *this >= double(d); }
  bool operator==(long d) const { return *this == double(d); }
  bool operator!=(long d) const { return *this != double(d); }
  bool operator<(long d) const { return *this < double(d); }
  bool operator<=(long d) const { return *this <= double(d); }
  bool operator>(long d) const { return *this > double(d); }
  bool operator>=(long d) const { return *this >= double(d); }
  bool operator==(float d) const { return *this == double(d); }
  bool operator!=(float d) const { return *this != double(d); }
  bool operator<(float d) const { return *this < double(d); }
  bool operator<=(float d) const { return *this <= double(d); }
  bool operator>(float d) const { return *this > double(d); }
  bool operator>=(float d) const { return *this >= double(d); }

  // "5 nm" sets value and units; one word sets the value when it starts like
  // a number ("+", "-", ".", digit) and the units otherwise. Returns the end
  // of what was read.
  const char* Read(const char* text);
  // strtod; returns where the number ended.
  const char* ReadValue(const char* text);
  // Units::Read after leading blanks.
  const char* ReadUnits(const char* text);

  // printf with three more directives: %V the value to significant digits
  // (the width is the digit count, 4 by default, and the field width), %U
  // the unit text, %v the value as %f. Flags and width apply to all three,
  // a precision to %U and %v. Other directives take the arguments as
  // printf does. The expanded value and unit texts are formatted again with
  // the arguments, so a "%" in a unit text acts as a directive: do not use
  // %U on units read from untrusted text. Returns what vsprintf returns;
  // the caller provides the room.
  int vsprintf(char* out, const char* format, va_list args) const;
  int sprintf(char* out, const char* format, ...) const;
  // "%V %U"
  int sprintf(char* out) const;
  // Formats this measurement converted to u (auto-scaled when u carries AutoPrefix).
  int sprintfu(const Units& u, char* out, const char* format, ...) const;

  // Formatted (at most 1023 characters) and written through Debug(type,
  // "%s", text); return the formatted length plus Debug's result.
  int vDebug(DebugType type, const char* format, va_list args) const;
  int Debug(DebugType type, const char* format, ...) const;
  int Debug(const char* format, ...) const;  // category "A"
  int Debug() const;                         // "%V %U\n" in category "A"

 private:
  double value;
  Units units;
};

// Ready-made units, built when the library is loaded.
extern KVCORE_API const Units Unit_Scalar;
extern KVCORE_API const Units Unit_Arb;
extern KVCORE_API const Units Unit_LogArb;
extern KVCORE_API const Units Unit_LSB;
extern KVCORE_API const Units Unit_V;
extern KVCORE_API const Units Unit_mV;
extern KVCORE_API const Units Unit_uV;
extern KVCORE_API const Units Unit_V__LSB;
extern KVCORE_API const Units Unit_V__V;
extern KVCORE_API const Units Unit_V__s;
extern KVCORE_API const Units Unit_uA;
extern KVCORE_API const Units Unit_nA;
extern KVCORE_API const Units Unit_pA;
extern KVCORE_API const Units Unit_nA__V;
extern KVCORE_API const Units Unit_pA__V;
extern KVCORE_API const Units Unit_mC;
extern KVCORE_API const Units Unit_Hz;
extern KVCORE_API const Units Unit_kHz;
extern KVCORE_API const Units Unit_MHz;
extern KVCORE_API const Units Unit_s;
extern KVCORE_API const Units Unit_ms;
extern KVCORE_API const Units Unit_us;
extern KVCORE_API const Units Unit_deg;
extern KVCORE_API const Units Unit_nm;
extern KVCORE_API const Units Unit_um;
extern KVCORE_API const Units Unit_mm;
extern KVCORE_API const Units Unit_pm;
extern KVCORE_API const Units Unit_nm__V;
extern KVCORE_API const Units Unit_pm__V;
extern KVCORE_API const Units Unit_nm__LSB;
extern KVCORE_API const Units Unit_nm__s;
extern KVCORE_API const Units Unit_pm__s;
extern KVCORE_API const Units Unit_um__s;
extern KVCORE_API const Units Unit_N__m;
extern KVCORE_API const Units Unit_nN;
extern KVCORE_API const Units Unit_nN__m;
extern KVCORE_API const Units Unit_nN__Arb;
extern KVCORE_API const Units Unit_Ohm;
extern KVCORE_API const Units Unit_kOhm;
extern KVCORE_API const Units Unit_MOhm;
extern KVCORE_API const Units Unit_Pascal;
extern KVCORE_API const Units Unit_MPascal;
extern KVCORE_API const Units Unit_GPascal;
extern KVCORE_API const Units Unit_LogPa;
extern KVCORE_API const Units Unit_eV;
extern KVCORE_API const Units Unit_rad;
