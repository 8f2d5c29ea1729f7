// Tagged coordinates.
#include "Coord.h"

#include "kvtext/text.h"

const char* const coordTypeTag[6] = {"default", "refCounts", "refMicrons", "userMicrons", "invalid", nullptr};

namespace {

coordTypeEnum type_of_tag(const char* tag) {
  if (tag == nullptr) return coordDefault;
  for (int i = 0; coordTypeTag[i] != nullptr; ++i)
    if (kvtext::equal_ignoring_ascii_case(tag, coordTypeTag[i])) return static_cast<coordTypeEnum>(i);
  return coordDefault;
}

const char* tag_of_type(coordTypeEnum t) {
  int count = 0;
  while (coordTypeTag[count] != nullptr) ++count;
  const int i = static_cast<int>(t);
  return (i >= 0 && i < count) ? coordTypeTag[i] : coordTypeTag[0];
}

}  // namespace

Coord2D Coord2D::operator+(const Coord2D& o) const {
  Coord2D r(x + o.x, y + o.y, type == o.type ? type : coordInvalid);
  r.type0 = type0 == o.type0 ? type0 : coordDefault;
  return r;
}

Coord2D Coord2D::operator-(const Coord2D& o) const {
  Coord2D r(x - o.x, y - o.y, type == o.type ? type : coordInvalid);
  r.type0 = type0 == o.type0 ? type0 : coordDefault;
  return r;
}

Coord2D& Coord2D::operator+=(const Coord2D& o) {
  x += o.x;
  y += o.y;
  if (type != o.type) type = coordInvalid;
  return *this;
}

Coord2D& Coord2D::operator-=(const Coord2D& o) {
  x -= o.x;
  y -= o.y;
  if (type != o.type) type = coordInvalid;
  return *this;
}

void Coord2D::SetType(const char* tag) { type = type_of_tag(tag); }
void Coord2D::SetType0(const char* tag) { type0 = type_of_tag(tag); }
const char* Coord2D::GetTypeTag() const { return tag_of_type(type); }
const char* Coord2D::GetType0Tag() const { return tag_of_type(type0); }

Coord3D Coord3D::operator+(const Coord3D& o) const {
  Coord3D r(x + o.x, y + o.y, z + o.z, type == o.type ? type : coordInvalid);
  r.type0 = type0 == o.type0 ? type0 : coordDefault;
  return r;
}

Coord3D Coord3D::operator-(const Coord3D& o) const {
  Coord3D r(x - o.x, y - o.y, z - o.z, type == o.type ? type : coordInvalid);
  r.type0 = type0 == o.type0 ? type0 : coordDefault;
  return r;
}

Coord3D& Coord3D::operator+=(const Coord3D& o) {
  x += o.x;
  y += o.y;
  z += o.z;
  if (type != o.type) type = coordInvalid;
  return *this;
}

Coord3D& Coord3D::operator-=(const Coord3D& o) {
  x -= o.x;
  y -= o.y;
  z -= o.z;
  if (type != o.type) type = coordInvalid;
  return *this;
}

void Coord3D::SetType(const char* tag) { type = type_of_tag(tag); }
void Coord3D::SetType0(const char* tag) { type0 = type_of_tag(tag); }
const char* Coord3D::GetTypeTag() const { return tag_of_type(type); }
const char* Coord3D::GetType0Tag() const { return tag_of_type(type0); }
