// Path names, working directories and drives.
#include "FILENAME.h"

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "DebugManager.h"
#include "kvinit.h"
#include "kvos/drives.h"
#include "kvos/fileattr.h"
#include "kvos/module.h"
#include "kvtext/text.h"
#include "sysman.h"

namespace {

constexpr size_t kNameMax = 256;  // a name's base or extension, a directory
constexpr size_t kPathMax = 260;  // a composed path

// The legal name characters by byte: name_chars in either case, and 0x80 up.
constexpr std::array<bool, 256> make_legal() {
  std::array<bool, 256> legal{};
  for (const char* p = filename::name_chars; *p != '\0'; ++p) {
    legal[static_cast<unsigned char>(*p)] = true;
    legal[static_cast<unsigned char>(kvtext::ascii_upper(*p))] = true;
  }
  for (int c = 0x80; c < 0x100; ++c) legal[c] = true;
  return legal;
}
constexpr std::array<bool, 256> kLegal = make_legal();

constexpr bool is_drive_char(int c) {
  for (const char* p = dirname::name_drives; *p != '\0'; ++p)
    if (*p == c) return true;
  return false;
}

// Copies at most max characters of text and terminates the copy.
void copy_limited(char* out, const char* text, size_t max) {
  size_t n = 0;
  if (text != nullptr) {
    while (n < max && text[n] != '\0') ++n;
    std::memcpy(out, text, n);
  }
  out[n] = '\0';
}

// A text trimmed as paths are: leading blanks skipped, at most max characters
// taken, trailing blanks stripped.
const char* trim(const char* text, size_t max, size_t& length) {
  text += std::strspn(text, " ");
  length = kvtext::trim_spaces(std::string_view(text, strnlen(text, max))).size();
  return text;
}

// Length of the "\\server\share" part of a network text (all of it when
// there is no more).
size_t share_length(const char* text) {
  size_t separators = 0;
  for (size_t i = 0; text[i] != '\0'; ++i)
    if (text[i] == '\\' && ++separators == 4) return i;
  return std::strlen(text);
}

// A checked name: its kept text, the base at its start and the extension.
struct NameParts {
  char kept[2 * kNameMax + 2];
  size_t baseLen;
  bool dot;
  size_t extStart;
  size_t extLen;
};

// Checks one name and splits it (the parsing rules of filename). False when
// the name is invalid.
bool split_name(const char* text, size_t length, NameParts& out) {
  if (length == 0) return false;
  size_t lastDot = length;  // none
  for (size_t i = length; i-- > 0;)
    if (text[i] == '.') {
      lastDot = i;
      break;
    }

  // The kept text: at most 256 base characters, a dot, at most 256 more.
  char* kept = out.kept;
  size_t k = 0;
  size_t count = 0;
  bool extension = false;
  for (size_t i = 0; i < length; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool legal = kLegal[c];
    if (!extension) {
      if (count == 0) {
        if (!legal) return false;  // a leading dot included
        kept[k++] = static_cast<char>(c);
        count = 1;
      } else if (count < kNameMax) {
        if (legal) {
          kept[k++] = static_cast<char>(c);
          ++count;
        } else if (c == '.') {
          kept[k++] = '.';
          if (i == lastDot)
            extension = true, count = 0;
          else
            ++count;
        } else {
          return false;
        }
      } else if (c == '.') {  // base full: any dot opens the extension
        kept[k++] = '.';
        extension = true;
        count = 0;
      } else if (!legal) {
        return false;
      }
    } else {
      if (!legal) return false;  // a further dot included
      if (count < kNameMax) {
        kept[k++] = static_cast<char>(c);
        ++count;
      }
    }
  }
  if (k == 0) return false;

  // The base: the first 256 kept characters, cut at their last dot.
  size_t baseLen = k < kNameMax ? k : kNameMax;
  for (size_t i = baseLen; i-- > 0;)
    if (kept[i] == '.') {
      baseLen = i;
      break;
    }
  if (baseLen <= 6)
    for (const char* reserved : filename::name_reserved)
      if (std::strlen(reserved) == baseLen && std::memcmp(kept, reserved, baseLen) == 0) return false;
  out.baseLen = baseLen;

  // The extension: what follows the kept text's last dot.
  out.dot = false;
  out.extStart = k;
  for (size_t i = k; i-- > 0;)
    if (kept[i] == '.') {
      out.dot = true;
      out.extStart = i + 1;
      break;
    }
  out.extLen = k - out.extStart;
  if (out.extLen > kNameMax) out.extLen = kNameMax;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// filename

filename::filename(const char* text) : filename() { *this << text; }

void filename::init() {
  pre[0] = '\0';
  post[0] = '\0';
  dot = false;
  value[0] = '\0';
  valid = false;
}

void filename::erase() { init(); }

filename& filename::operator<<(const char* text) {
  if (text == nullptr) {
    init();
    return *this;
  }
  parse(text, std::strlen(text));
  return *this;
}

void filename::parse(const char* text, size_t length) {
  init();
  NameParts parts;
  if (!split_name(text, length, parts)) return;
  std::memcpy(pre, parts.kept, parts.baseLen);
  pre[parts.baseLen] = '\0';
  dot = parts.dot;
  std::memcpy(post, parts.kept + parts.extStart, parts.extLen);
  post[parts.extLen] = '\0';
  build_value();
}

void filename::build_value() {
  if (pre[0] == '\0') {
    value[0] = '\0';
    valid = false;
    return;
  }
  const size_t baseLen = std::strlen(pre);
  std::memcpy(value, pre, baseLen + 1);
  if (post[0] != '\0' || dot) {
    value[baseLen] = '.';
    std::strcpy(value + baseLen + 1, post);
  }
  valid = true;
}

filename& filename::operator<<(const file_timestamp& t) {
  const uint64_t packed = t.packed();
  const auto month = static_cast<short>((packed >> 21) & 0x0F);
  const auto day = static_cast<short>((packed >> 16) & 0x1F);
  const auto hour = static_cast<short>((packed >> 11) & 0x1F);
  const auto minute = static_cast<short>((packed >> 5) & 0x3F);
  char digits[32];
  std::snprintf(digits, sizeof digits, "%02hd%02hd%02hd%02hd", month, day, hour, minute);
  if (std::strcmp(digits, pre) != 0) {
    std::strcpy(pre, digits);
    std::strcpy(post, "001");
  } else {
    const long long n = std::strtoll(post, nullptr, 10);
    std::snprintf(post, sizeof post, "%03lld", n < LLONG_MAX ? n + 1 : n);
  }
  dot = true;
  build_value();
  return *this;
}

filename& filename::operator++() {
  if (!valid || post[0] == '\0') {
    init();
    return *this;
  }
  long n = std::strtol(post, nullptr, 10);
  if (n < 1 || n > 998) {
    if (std::strcmp(post, "000") != 0 && std::strcmp(post, "00") != 0 && std::strcmp(post, "0") != 0) {
      init();
      return *this;
    }
    n = 0;
  }
  std::snprintf(post, sizeof post, "%03ld", n + 1);
  build_value();
  return *this;
}

char* filename::prefix() const { return const_cast<char*>(pre); }
char* filename::postfix() const { return const_cast<char*>(post); }

void filename::prefix(const char* base) {
  char copy[kNameMax + 1];  // base may point into this name
  copy_limited(copy, base, kNameMax);
  std::memcpy(pre, copy, sizeof copy);
  build_value();
}

void filename::postfix(const char* ext) {
  char copy[kNameMax + 1];
  copy_limited(copy, ext, kNameMax);
  std::memcpy(post, copy, sizeof copy);
  dot = post[0] != '\0';
  build_value();
}

bool filename::is_wild() const { return std::strpbrk(value, wild_chars) != nullptr; }

bool filename::match(const wild_match& w) const { return wild_match(*this) == w; }

void filename::wild_fill(const filename& source) {
  wild_match mine(*this);
  const wild_match theirs(source);
  for (size_t i = 0; i < 2 * kNameMax; ++i)
    if (mine.field[i] == '?') mine.field[i] = theirs.field[i];
  std::memcpy(pre, mine.field, kNameMax);
  pre[kNameMax] = '\0';
  std::memcpy(post, mine.field + kNameMax, kNameMax);
  post[kNameMax] = '\0';
  build_value();
}

bool filename::operator==(const filename& other) const {
  if (!valid || !other.valid) return valid == other.valid;
  return std::strcmp(value, other.value) == 0;
}

// ---------------------------------------------------------------------------
// wild_match

wild_match::wild_match(const filename& f) {
  expand(field, f.pre, static_cast<int>(kNameMax));
  expand(field + kNameMax, f.post, static_cast<int>(kNameMax));
}

void wild_match::expand(char* field, const char* text, int width) {
  int i = 0;
  if (text != nullptr) {
    for (; i < width && text[i] != '\0'; ++i) {
      if (text[i] == '*') break;
      field[i] = text[i];
    }
    if (i < width && text[i] == '*') {
      std::memset(field + i, '?', static_cast<size_t>(width - i));
      i = width;
    }
  }
  if (i < width) std::memset(field + i, 0, static_cast<size_t>(width - i));
  field[width] = '\0';
}

bool wild_match::operator==(const wild_match& other) const {
  for (size_t i = 0; i < sizeof field; ++i) {
    const char a = field[i];
    const char b = other.field[i];
    if (a == b || a == '?' || b == '?') continue;
    if (kvtext::ascii_lower(a) != kvtext::ascii_lower(b)) return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// dirname

dirname::dirname(const char* text) : dirname() { *this << text; }

dirname::dirname(const pathname& p) : dirname() { *this << p.text; }

void dirname::init() {
  text[0] = '\0';
  valid = false;
}

void dirname::erase() { init(); }

dirname& dirname::operator<<(const char* in) {
  if (in == nullptr) {
    init();
    return *this;
  }
  size_t length = 0;
  const char* trimmed = trim(in, kNameMax, length);
  if (length == 0) {
    init();
    return *this;
  }
  parse(trimmed, length);
  return *this;
}


void dirname::parse(const char* s, size_t n) {
  // Built aside: the start may be this object's own text or a CWD slot. A
  // network text is built with its leading "\\" from the start.
  char work[kNameMax + 4];
  size_t len = 0;
  size_t pos = 0;
  const auto start_with = [&](const char* from, size_t max) {
    len = strnlen(from, max);
    std::memcpy(work, from, len);
  };

  const int drive = static_cast<unsigned char>(kvtext::ascii_lower(s[0]));
  if (n >= 2 && s[1] == ':' && is_drive_char(drive)) {
    if (n == 2 || s[2] != '\\') {
      // Drive-relative ("c:data"): from that drive's working directory, as it stands.
      const dirname& current = CWD::Get(drive);
      if (!current.valid) {
        init();
        return;
      }
      start_with(current.text, kNameMax);
      pos = 2;
    } else {
      work[0] = static_cast<char>(drive);
      work[1] = ':';
      len = 2;
      pos = 3;
    }
  } else if (n >= 2 && s[0] == '\\' && s[1] == '\\') {
    // A network path is absolute: it replaces whatever this object held.
    work[0] = '\\';
    len = 1;
    pos = 2;
  } else if (s[0] != '\\') {
    // Relative: from this directory, or from the start directory.
    const dirname& base = valid ? *this : CWD::Start();
    if (!base.valid) {
      init();
      return;
    }
    start_with(base.text, kNameMax);
    if (len > 0 && work[len - 1] == '\\') --len;
    pos = 0;
  } else {
    // Rooted ("\data"): on this directory's drive (or share), or the start directory's drive.
    const dirname& base = valid ? *this : CWD::Start();
    if (!base.valid || (!valid && base.drive() == 0)) {
      init();
      return;
    }
    if (base.text[0] == '\\') {
      start_with(base.text, share_length(base.text));
    } else {
      work[0] = base.text[0];
      work[1] = ':';
      len = 2;
    }
    pos = 1;
  }

  valid = false;
  size_t i = pos;
  while (i < n) {
    size_t j = i;
    while (j < n && s[j] != '\\') ++j;
    const size_t partLen = j - i;
    const char* part = s + i;
    if (partLen == 0) {  // a doubled separator
      init();
      return;
    }
    if (partLen == 2 && part[0] == '.' && part[1] == '.') {
      size_t cut = len;
      while (cut > 0 && work[cut - 1] != '\\') --cut;
      // Never above the drive, nor above the server of a network path.
      if (cut == 0 || (work[0] == '\\' && cut < 4)) {
        init();
        return;
      }
      len = cut - 1;
    } else if (!(partLen == 1 && part[0] == '.')) {
      NameParts name;
      if (!split_name(part, partLen, name) || name.baseLen == 0) {
        init();
        return;
      }
      // Stored in its normalised form: base, then "." and the extension.
      const size_t valueLen = name.baseLen + (name.dot ? 1 + name.extLen : 0);
      if (len + 1 + valueLen > kNameMax) {
        // Too long: stop, invalid, keeping what was built.
        std::memcpy(text, work, len);
        text[len] = '\0';
        return;
      }
      work[len] = '\\';
      std::memcpy(work + len + 1, name.kept, name.baseLen);
      if (name.dot) {
        work[len + 1 + name.baseLen] = '.';
        std::memcpy(work + len + 2 + name.baseLen, name.kept + name.extStart, name.extLen);
      }
      len += 1 + valueLen;
    }
    i = j + 1;  // past the separator; a single trailing one ends the walk
  }

  if (work[0] == '\\' && len > 0) {
    // A network directory names at least its server.
    if (len < 3 || work[1] != '\\') {
      init();
      return;
    }
  } else if (len <= 2) {
    work[len++] = '\\';  // a bare "x:" is the root "x:\"
  }
  std::memcpy(text, work, len);
  text[len] = '\0';
  valid = true;
}

int dirname::drive() const {
  if (text[0] == '\\') return 0;
  return static_cast<unsigned char>(kvtext::ascii_lower(text[0]));
}

bool dirname::is_root() const { return std::strlen(text) == 3; }

bool dirname::is_subdir_of(const dirname& other) const {
  if (!other.valid) return false;
  const size_t n = std::strlen(other.text);
  return std::strncmp(text, other.text, n) == 0 && (text[n] == '\0' || text[n] == '\\');
}

char* dirname::get_last() const {
  const char* last = std::strrchr(text, '\\');
  return const_cast<char*>(last != nullptr ? last + 1 : text + std::strlen(text));
}

bool dirname::operator==(const dirname& other) const {
  if (!valid || !other.valid) return valid == other.valid;
  return std::strcmp(text, other.text) == 0;
}

// ---------------------------------------------------------------------------
// pathname

pathname::pathname(const char* t) : pathname() { *this << t; }
pathname::pathname(const dirname& d) : pathname() { *this << d; }
pathname::pathname(const filename& f) : pathname() { *this << f; }
pathname::pathname(const dirname& d, const filename& f) : pathname() { *this << d << f; }

void pathname::init() {
  text[0] = '\0';
  valid = false;
}

void pathname::reinit() {
  m_file.init();
  m_dir.init();
  init();
}

void pathname::erase() { reinit(); }

pathname& pathname::operator<<(const char* in) {
  init();
  size_t length = 0;
  const char* trimmed = in != nullptr ? trim(in, kPathMax, length) : nullptr;
  if (length == 0) {
    m_file.init();
    m_dir.init();
    return *this;
  }
  char buffer[kPathMax + 1];
  std::memcpy(buffer, trimmed, length);
  buffer[length] = '\0';

  if (m_file.valid && m_dir.valid) {
    // Resolve a relative text against the whole path. When the path does not
    // fit a directory, only an absolute text can still be resolved.
    m_dir << m_file.value;
    if (!m_dir.valid) {
      m_dir.init();
      const bool absolute = buffer[0] == '\\' || (length >= 2 && buffer[1] == ':');
      if (!absolute) {
        m_file.init();
        return *this;
      }
    }
  }
  m_dir << buffer;

  m_file.init();
  if (m_dir.valid) {
    const char* last = m_dir.get_last();
    if (*last != '\0') {
      m_file << last;
      if (!m_file.valid) return *this;  // the directory keeps the whole text
      m_dir << "..";
    }
  }
  build_str();
  return *this;
}

pathname& pathname::operator<<(const dirname& d) {
  m_dir = d;
  build_str();
  return *this;
}

pathname& pathname::operator<<(const filename& f) {
  m_file = f;
  build_str();
  return *this;
}

void pathname::build_str() {
  init();
  if (!m_dir.valid) return;
  const size_t dirLen = std::strlen(m_dir.text);
  const size_t fileLen = std::strlen(m_file.value);
  if (fileLen + 1 + dirLen >= kPathMax + 1) return;
  std::memcpy(text, m_dir.text, dirLen + 1);
  if (m_file.valid) {
    size_t at = dirLen;
    if (at == 0 || text[at - 1] != '\\') text[at++] = '\\';
    std::memcpy(text + at, m_file.value, fileLen + 1);
  }
  valid = true;
}

bool pathname::is_root() const { return valid && !m_file.valid && std::strlen(m_dir.text) == 3; }

bool pathname::exists() const { return kvos::file_attributes(text) != kvos::kInvalidFileAttributes; }

bool pathname::match(const pathname& pattern) const {
  return valid && pattern.valid && m_dir == pattern.m_dir && m_file.match(wild_match(pattern.m_file));
}

pathname& pathname::operator++() {
  ++m_file;
  build_str();
  return *this;
}

void pathname::prefix(const char* base) {
  m_file.prefix(base);
  build_str();
}

void pathname::postfix(const char* ext) {
  m_file.postfix(ext);
  build_str();
}

void pathname::wild_fill(const filename& source) {
  m_file.wild_fill(source);
  build_str();
}

bool pathname::operator==(const pathname& other) const {
  if (!valid || !other.valid) return valid == other.valid;
  return std::strcmp(text, other.text) == 0;
}

// ---------------------------------------------------------------------------
// FileName

FileName::FileName(const char* text) : name{} {
  if (text != nullptr) std::strncpy(name, text, kPathMax);
}

const char* InvalidFileName() { return "????????.???"; }

// ---------------------------------------------------------------------------
// CWD and the working directory

dirname* CWD::dirs[27] = {};
int CWD::cur_drive = 0;
dirname CWD::cap_dir;
dirname CWD::exe_dir;
dirname CWD::start_dir;

CWD cwd KV_INIT(KV_PRIO_CWD);

CWD::CWD() noexcept {
  for (dirname*& slot : dirs) slot = nullptr;
  cur_drive = get_cur_drive();
  start_dir = getcwd(cur_drive);

  // The executable's DOS path, read as into a 255-character buffer.
  std::string exe;
  size_t length = 0;
  const std::string host = kvos::executable_path();
  if (kvos::host_to_dos(host, exe)) {
    length = exe.size() < 255 ? exe.size() : 255;
  } else if (!host.empty()) {
    // The drive table holds no drive for it (c: remapped): say what to map.
    const std::string text = "the executable's directory " + std::filesystem::path(host).parent_path().string() +
                             " is on no drive; map it in KVCORE_DRIVES";
    sys_abort(text.c_str());
  }
  if (length - 1 > 250) sys_abort(nullptr);
  exe_dir = pathname(exe.c_str()).dir();
}

CWD::~CWD() {
  for (dirname*& slot : dirs) {
    delete slot;
    slot = nullptr;
  }
}

int CWD::Index(int ch) {
  if (ch == '!') return 0;
  const int slot = ch - 0x60;
  return (slot >= 0 && slot <= 26) ? slot : -1;
}

const dirname& CWD::Get(int drive) {
  const int ch = drive != 0 ? drive : cur_drive;
  int slot = Index(ch);
  if (slot == -1) slot = Index(cur_drive);
  if (slot == -1) {
    // Neither the drive nor the current drive has a slot: answer without remembering.
    static dirname unslotted;
    unslotted = getcwd(ch);
    return unslotted;
  }
  if (dirs[slot] == nullptr) dirs[slot] = new dirname();
  if (dirs[slot]->is_valid() && dir_exists(*dirs[slot])) return *dirs[slot];
  *dirs[slot] = getcwd(ch);
  return *dirs[slot];
}

void CWD::Set(const dirname& d) {
  if (!d.is_valid()) return;
  const int slot = Index(d.drive());
  if (slot == -1) return;
  if (dirs[slot] == nullptr) dirs[slot] = new dirname();
  *dirs[slot] = d;
}

int CWD::GetDrive() { return cur_drive; }

void CWD::SetDrive(int ch) {
  if (ch < 0 || ch > 0xFF) return;
  if (std::strchr(dirname::name_drives, ch) != nullptr) cur_drive = ch;
}

const dirname& CWD::Start() { return start_dir; }
void CWD::Start(const dirname& d) { start_dir = d; }
const dirname& CWD::Exe() { return exe_dir; }
void CWD::Exe(const dirname& d) { exe_dir = d; }
const dirname& CWD::CaptureDir() { return cap_dir; }

void CWD::CaptureDir(const dirname& d) {
  cap_dir = d;
  if (!dir_exists(cap_dir)) cap_dir << nullptr;
}

bool CWD::HasCaptureDirectory() { return cap_dir.is_valid(); }

void CWD::do_subst(dirname& d) {
  if (cap_dir.is_valid() && d.is_valid() && d.drive() == '!') d = cap_dir;
}

void CWD::do_subst(pathname& p) {
  if (cap_dir.is_valid() && p.is_valid() && p.drive() == '!') p << cap_dir;
}

// ---------------------------------------------------------------------------
// The process's drives and working directory

namespace {

// The drive letter of a drive number (1 = "a"); 0 is the current drive.
int letter_of_number(int number) {
  if (number == 0) return kvos::drive_current();
  return (number >= 1 && number <= 26) ? 'a' + number - 1 : -1;
}

}  // namespace

int get_cur_drive() {
  const int letter = kvos::drive_current();
  const int number = letter != 0 ? letter - 'a' + 1 : 0;
  return number + 0x60;
}

void set_cur_drive(int ch) {
  if (ch == '!') return;
  const int number = ch - 0x60;
  if (number < 1 || number > 26 || !kvos::drive_set_current('a' + number - 1))
    Debug(dbgCSL, "CSL: set_cur_drive: cannot make drive %d current\n", ch);
}

dirname getcwd(int drive) {
  if (drive == '!') return dirname("!:\\");
  const int letter = letter_of_number(drive - 0x60);
  std::string text;
  if (letter > 0 && kvos::drive_getcwd(letter, text) && text.size() < 256) return dirname(text.c_str());
  char root[8];
  std::snprintf(root, sizeof root, "%c:\\", static_cast<char>(drive));
  return dirname(root);
}

bool setcwd(const char* path) {
  if (path == nullptr) return false;
  if (kvos::dos_chdir(path)) return true;
  Debug(dbgCSL, "CSL: setcwd: cannot change the working directory to \"%s\"\n", path);
  return false;
}

bool dir_exists(const dirname& d) {
  if (!d.is_valid()) return false;
  if (d.drive() == '!') return std::strcmp(*d, "!:\\") == 0;
  const uint32_t attributes = kvos::file_attributes(*d);
  return attributes != kvos::kInvalidFileAttributes && (attributes & kvos::kFileAttributeDirectory) != 0;
}

bool drive_exists(int ch) {
  if (ch == '!' || ch == '&') return true;
  if (ch <= 0 || ch > 0xFF) return false;
  return kvos::drive_type(ch) != kvos::kDriveNoRoot;
}

bool drive_exists(int ch, bool& removable, bool& remote) {
  removable = false;
  remote = false;
  if (ch == '!') return true;
  if (!drive_exists(ch)) return false;
  const int type = kvos::drive_type(ch);
  removable = type == kvos::kDriveRemovable;
  remote = type == kvos::kDriveRemote;
  return true;
}

// ---------------------------------------------------------------------------
// The drive table

bool drive_map(int letter, const char* hostRoot) {
  return hostRoot != nullptr && kvos::drive_map(letter, hostRoot);
}

bool drive_unmap(int letter) { return kvos::drive_unmap(letter); }

std::vector<DriveMapping> drive_list() {
  std::vector<DriveMapping> out;
  for (const auto& [letter, root] : kvos::drive_list()) out.push_back({letter, root, kvos::drive_type(letter)});
  return out;
}

std::vector<std::string> drive_config_problems() { return kvos::drive_config_problems(); }

bool network_root_set(const char* hostDir) {
  if (hostDir == nullptr || *hostDir == '\0') {
    kvos::network_root_set(std::string());
    return true;
  }
  kvos::network_root_set(hostDir);
  return !kvos::network_root().empty();
}

std::string network_root() { return kvos::network_root(); }

bool dos_to_host_path(const char* dos, std::string& host) { return dos != nullptr && kvos::dos_to_host(dos, host); }

bool host_to_dos_path(const char* host, std::string& dos) { return host != nullptr && kvos::host_to_dos(host, dos); }
