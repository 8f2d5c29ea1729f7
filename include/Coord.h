// Positions in two and three dimensions, tagged with the frame they are given
// in. Arithmetic keeps the frame when both operands agree and marks the
// result invalid when they do not. The frames have text tags (coordTypeTag)
// for parameter files.
#pragma once

#include <cstdint>

#include "KvExport.h"

enum coordTypeEnum : int32_t {
  coordDefault = 0,
  coordRefCounts = 1,
  coordRefMicrons = 2,
  coordUserMicrons = 3,
  coordInvalid = 4
};

// "default", "refCounts", "refMicrons", "userMicrons", "invalid", then null.
extern KVCORE_API const char* const coordTypeTag[6];

class KVCORE_API Coord2D {
 public:
  Coord2D(coordTypeEnum t = coordDefault) : x(0), y(0), reserved(0), type0(coordDefault), type(t) {}  // NOLINT
  Coord2D(float xv, float yv, coordTypeEnum t = coordDefault)
      : x(xv), y(yv), reserved(0), type0(coordDefault), type(t) {}
  Coord2D(const Coord2D& other) = default;
  Coord2D& operator=(const Coord2D& other) = default;

  // Components exactly equal and the same frame (type0 is not compared).
  bool operator==(const Coord2D& other) const { return x == other.x && y == other.y && type == other.type; }
  bool operator!=(const Coord2D& other) const { return !(*this == other); }

  Coord2D operator+(const Coord2D& other) const;
  Coord2D operator-(const Coord2D& other) const;
  // In place; a different frame makes this one invalid, type0 is kept.
  Coord2D& operator+=(const Coord2D& other);
  Coord2D& operator-=(const Coord2D& other);

  // The frame of a tag, ignoring case; 0 ("default") for an unknown tag.
  void SetType(const char* tag);
  void SetType0(const char* tag);
  // The tag of the frame; "default" for a value outside the table.
  const char* GetTypeTag() const;
  const char* GetType0Tag() const;
  coordTypeEnum GetType() const { return type; }
  coordTypeEnum GetType0() const { return type0; }

  float x;
  float y;
  int32_t reserved;  // kept in the layout; no operation uses it

 private:
  coordTypeEnum type0;
  coordTypeEnum type;
};

class KVCORE_API Coord3D {
 public:
  Coord3D(coordTypeEnum t = coordDefault) : x(0), y(0), z(0), reserved(0), type0(coordDefault), type(t) {}  // NOLINT
  Coord3D(float xv, float yv, float zv, coordTypeEnum t = coordDefault)
      : x(xv), y(yv), z(zv), reserved(0), type0(coordDefault), type(t) {}
  Coord3D(const Coord3D& other) = default;
  Coord3D& operator=(const Coord3D& other) = default;

  bool operator==(const Coord3D& other) const {
    return x == other.x && y == other.y && z == other.z && type == other.type;
  }
  bool operator!=(const Coord3D& other) const { return !(*this == other); }

  Coord3D operator+(const Coord3D& other) const;
  Coord3D operator-(const Coord3D& other) const;
  Coord3D& operator+=(const Coord3D& other);
  Coord3D& operator-=(const Coord3D& other);

  void SetType(const char* tag);
  void SetType0(const char* tag);
  const char* GetTypeTag() const;
  const char* GetType0Tag() const;
  coordTypeEnum GetType() const { return type; }
  coordTypeEnum GetType0() const { return type0; }

  float x;
  float y;
  float z;
  int32_t reserved;  // kept in the layout; no operation uses it

 private:
  coordTypeEnum type0;
  coordTypeEnum type;
};
