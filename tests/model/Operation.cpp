/// @file Operation.cpp

#include "model/Operation.h"

#include <algorithm>
#include <array>
#include <sstream>

#include "support/Utf16.h"

namespace {

std::string Quoted(const NAME& name) {
  std::string text;
  UTF16 plain;
  const auto flush = [&text, &plain] {
    text += ToUtf8(plain);
    plain.clear();
  };
  for (const char16_t c : name) {
    if (c >= 0x20 && c != NEXT_NUMBER) {
      plain.push_back(c);
      continue;
    }
    flush();
    text += c == NEXT_NUMBER ? "{next}" : "{" + std::to_string(static_cast<unsigned int>(c)) + "}";
  }
  flush();
  return "«" + text + "»";
}

constexpr std::array<const char*, static_cast<std::size_t>(OP::COUNT)> NAMES = {
    "open",      "create", "close",          "read",       "write",      "read-at",     "write-at",
    "offset?",   "seek",   "size?",          "set-size",   "is-dir?",    "attributes?", "set-attributes",
    "delete",    "rename", "move",           "create-dir", "find-first", "find-next",   "find-close",
    "read-back", "list",   "null-arguments", "no-volume",  "remount"};

bool OnFileHandle(OP kind) {
  switch (kind) {
    case OP::Close:
    case OP::Read:
    case OP::Write:
    case OP::ReadEx:
    case OP::WriteEx:
    case OP::GetOffset:
    case OP::Seek:
    case OP::GetSize:
    case OP::SetSize:
    case OP::IsDir:
    case OP::GetAttribute:
    case OP::SetAttribute:
    case OP::NullArguments:
    case OP::NoVolume:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string ToText(const OPERATION& operation) {
  std::ostringstream text;
  text << NAMES[static_cast<std::size_t>(operation.Kind)];
  if (operation.Volume != 0) text << " (volume " << operation.Volume << ")";
  const bool search = operation.Kind == OP::FindNext || operation.Kind == OP::FindClose;
  if (OnFileHandle(operation.Kind) || search) {
    if (operation.Literal) {
      text << " handle " << operation.Handle;
    } else {
      text << (search ? " s" : " f") << operation.Variable;
    }
  }
  if (!operation.Path.empty() || operation.Kind == OP::Open) text << " " << Quoted(operation.Path);
  switch (operation.Kind) {
    case OP::Create:
      text << " size " << operation.Number << " attributes " << operation.Attributes << " -> f" << operation.Variable;
      break;
    case OP::Open:
      text << " -> f" << operation.Variable;
      break;
    case OP::FindFirst:
      text << " -> s" << operation.Variable;
      break;
    case OP::CreateDir:
    case OP::SetAttribute:
      text << " attributes " << operation.Attributes;
      break;
    case OP::Read:
    case OP::SetSize:
      text << " " << operation.Number;
      break;
    case OP::Write:
      text << " " << operation.Number << " bytes of seed " << operation.Seed;
      break;
    case OP::ReadEx:
      text << " " << operation.Offset << " +" << operation.Number;
      break;
    case OP::WriteEx:
      text << " " << operation.Offset << " +" << operation.Number << " bytes of seed " << operation.Seed;
      break;
    case OP::Seek:
      text << " " << operation.Number << " method " << operation.Attributes;
      break;
    case OP::Rename:
      text << " to " << Quoted(operation.Path2);
      break;
    case OP::Move:
      text << " into " << (operation.ToRoot ? std::string("the root") : Quoted(operation.Path2));
      break;
    default:
      break;
  }
  return text.str();
}

std::vector<unsigned char> BytesOf(unsigned int seed, std::size_t count) {
  std::vector<unsigned char> bytes(count);
  std::uint32_t x = seed * 2654435761u + 0x9E3779B9u;
  for (unsigned char& byte : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    byte = static_cast<unsigned char>(x >> 11);
  }
  return bytes;
}

// ---------------------------------------------------------------------------------------------- what to do next

CGenerator::CGenerator(unsigned int seed, unsigned int maxFileBytes) : m_Random(seed), m_nMaxFileBytes(maxFileBytes) {
  const auto weight = [this](OP kind) -> unsigned int& { return m_Weights[static_cast<std::size_t>(kind)]; };
  m_Weights.assign(static_cast<std::size_t>(OP::COUNT), 5);
  m_nMaxNodes = 60;
  m_nNames = 40 + Random(200);
  m_nLongPercent = 50;
  m_nKnownPathPercent = 92;
  weight(OP::Open) = 14;
  weight(OP::Create) = 16;
  weight(OP::Close) = 20;
  weight(OP::CreateDir) = 5;
  weight(OP::Delete) = 12;
  weight(OP::Read) = weight(OP::Write) = weight(OP::ReadEx) = weight(OP::WriteEx) = weight(OP::SetSize) = 8;
  weight(OP::SetAttribute) = weight(OP::IsDir) = weight(OP::GetOffset) = weight(OP::GetSize) = 3;
  weight(OP::Remount) = weight(OP::NullArguments) = weight(OP::NoVolume) = 1;
  switch (seed % 9) {
    case 0:  // a bit of everything
      break;
    case 1:  // a large tree of small files: the cache of objects overflows
      m_nMaxNodes = 600;
      m_nNames = 3000;
      m_nMaxFileBytes = std::min(m_nMaxFileBytes, 600u);
      m_nKnownPathPercent = 100;
      m_nDeepPercent = 1;
      m_nCacheEndPercent = 25;
      weight(OP::Create) = weight(OP::Open) = weight(OP::ReadBack) = 60;
      weight(OP::CreateDir) = 20;
      weight(OP::Close) = 60;
      weight(OP::List) = 15;
      weight(OP::Delete) = 6;
      weight(OP::Rename) = weight(OP::Move) = 1;
      weight(OP::Remount) = 0;
      break;
    case 2:  // names come and go: directories fill with holes
      m_nMaxNodes = 120;
      m_nLongPercent = 90;
      weight(OP::Delete) = 40;
      weight(OP::Create) = 50;
      weight(OP::Close) = 60;
      weight(OP::Rename) = weight(OP::Move) = 12;
      break;
    case 3:  // data
      m_nMaxNodes = 20;
      for (const OP kind : {OP::Read, OP::Write, OP::ReadEx, OP::WriteEx, OP::Seek, OP::SetSize}) weight(kind) = 25;
      weight(OP::Rename) = weight(OP::Move) = 2;
      break;
    case 4:  // searches
      m_nMaxNodes = 50;
      weight(OP::FindFirst) = 15;
      weight(OP::FindNext) = 60;
      weight(OP::FindClose) = 9;
      weight(OP::Delete) = weight(OP::Rename) = weight(OP::Move) = 12;
      break;
    case 5:  // handles up to the last
      weight(OP::Open) = 90;
      weight(OP::Close) = 8;
      weight(OP::FindFirst) = 25;
      weight(OP::FindClose) = 3;
      weight(OP::Rename) = weight(OP::Move) = 2;
      m_nKnownPathPercent = 100;
      break;
    case 6:  // old paths after renaming and moving
      weight(OP::Rename) = weight(OP::Move) = 20;
      m_nKnownPathPercent = 80;
      weight(OP::Remount) = 4;
      break;
    case 7:  // a few open files, and so many others that those lose their place in the cache
      m_nMaxNodes = 600;
      m_nNames = 3000;
      m_nMaxFileBytes = std::min(m_nMaxFileBytes, 2000u);
      m_nKnownPathPercent = 100;
      m_nDeepPercent = 1;
      m_nCacheEndPercent = 25;
      for (const OP kind : {OP::Read, OP::Write, OP::ReadEx, OP::WriteEx, OP::SetSize, OP::GetAttribute})
        weight(kind) = 12;
      weight(OP::CreateDir) = weight(OP::List) = 90;
      weight(OP::ReadBack) = 60;
      weight(OP::Create) = weight(OP::Open) = 15;
      weight(OP::Close) = 18;
      weight(OP::Delete) = 8;
      weight(OP::Rename) = weight(OP::Move) = 2;
      weight(OP::Remount) = 0;
      break;
    case 8:  // crowded directories of very long names
      m_nMaxNodes = 800;
      m_nNames = 5000;
      m_nLongPercent = 100;
      m_bHugeNames = true;
      weight(OP::Create) = weight(OP::Close) = 200;
      weight(OP::Delete) = 20;
      weight(OP::Rename) = weight(OP::Move) = 2;
      break;
    default:
      break;
  }
}

OP CGenerator::PickKind(const CTwinVolume& volume) {
  if (volume.Nodes().size() < 4) return Chance(60) ? OP::Create : OP::CreateDir;
  if (volume.Nodes().size() > m_nMaxNodes && Chance(50)) return OP::Delete;
  unsigned int sum = 0;
  for (const unsigned int weight : m_Weights) sum += weight;
  unsigned int at = Random(sum);
  std::size_t kind = 0;
  while (at >= m_Weights[kind]) at -= m_Weights[kind++];
  return static_cast<OP>(kind);
}

NAME CGenerator::NewName() {
  const unsigned int n = Random(m_nNames);
  const auto number = [n] {
    NAME digits;
    for (const char c : std::to_string(n)) digits.push_back(static_cast<char16_t>(c));
    return digits;
  };
  if (!Chance(m_nLongPercent)) {
    switch (n % 4) {
      case 0:
        return u"F" + number() + u".TXT";
      case 1:
        return u"dir" + number();
      case 2:
        return u"x-" + number() + u".c";
      default:
        return u"NAME" + number() + u"$";
    }
  }
  static const std::array<NAME, 16> s_Starts = {
      u"Long file name ",
      u"a.b.c.",
      u".profile",
      u"x+y ",
      u"\u0444\u0430\u0439\u043B ",  // Cyrillic
      u"\u00E9t\u00E9",
      u"\u03C9",
      u"\u65E5\u672C",
      u"\U0001F600 ",
      u"exactly 13 u",
      u"exactly twenty-six units",
      u"\u5B57\u6587 starts with the byte of a deleted entry ",
      u"[1] = a; b, c ",
      u"\uFF21\u00FF",
      u"no extension but long ",
      u"a name that goes on and on and on and on and on and on and on and on and on and on and on and on and on "};
  NAME name = s_Starts[n % s_Starts.size()] + number();
  if (n % 3 == 0) name += u".text";
  if (n % 37 == 0 || m_bHugeNames) {
    name += u' ';
    name.resize(200 + n % 55, u'z');
  }
  return name;
}

NODE_PTR CGenerator::PickNode(const CTwinVolume& volume, bool dirs, bool files) {
  const std::vector<NODE_PTR>& nodes = volume.Nodes();
  // Where the cache of objects ends is where it may end wrongly.
  if (Chance(m_nCacheEndPercent)) {
    const NODE_PTR node = Chance(70) ? volume.LastPushedOut() : volume.OldestCached();
    if (node != nullptr && node->Parent != nullptr && (node->Dir ? dirs : files)) return node;
  }
  for (unsigned int i = 0; i < 12 && !nodes.empty(); ++i) {
    const NODE_PTR& node = OneOf(nodes);
    // Names that were made to be in the way hold a number that differs from process to process.
    if ((node->Dir ? dirs : files) && CTwinVolume::NameOf(*node).find(u'~') == NAME::npos) return node;
  }
  return nullptr;
}

NAME CGenerator::PathTo(const TWIN_NODE& node) {
  const TWIN_OBJECT* object = node.Object;
  if (object != nullptr && object->Cached && Chance(m_nKnownPathPercent)) return object->Key;
  // The same below a directory that is known under another path.
  if (node.Parent != nullptr && !node.Parent->IsRoot() && Chance(m_nKnownPathPercent)) {
    const TWIN_OBJECT* parent = node.Parent->Object;
    if (parent != nullptr && parent->Cached) return parent->Key + u"\\" + CTwinVolume::NameOf(node);
  }
  return CTwinVolume::PathOf(node);
}

NAME CGenerator::PickPath(const CTwinVolume& volume, bool dirs, bool files) {
  if (Chance(2)) return BadPath();
  const NODE_PTR node = PickNode(volume, dirs, files);
  if (node == nullptr || Chance(4)) return Disguise(NewPath(volume));
  NAME path = PathTo(*node);
  if (Chance(node->Dir ? 2 : 1)) path += u"\\" + NewName();
  return Disguise(path);
}

NAME CGenerator::NewPath(const CTwinVolume& volume) {
  NAME path;
  if (Chance(m_nDeepPercent)) {
    for (unsigned int depth = 20 + Random(100); depth > 0; --depth) path += Chance(90) ? u"d\\" : u"e\\";
    return path + u"f";
  }
  if (m_bHugeNames && Chance(90)) return u"CROWD\\" + NewName();
  const NODE_PTR dir = Chance(75) ? PickNode(volume, true, Chance(1)) : nullptr;
  if (dir != nullptr) path = PathTo(*dir) + u"\\";
  while (Chance(6)) path += NewName() + u"\\";
  return path + NewName();
}

NAME CGenerator::BadPath() {
  static const std::array<NAME, 14> s_Bad = {u"",     u"\\",  u" ",     u"\\\\x", u"a\\\\b", u"a..b",  u".",
                                             u".\\x", u"a/b", u"what?", u"a:b",   u"tab\t",  u" \\ .", u"x\\. .\\y"};
  if (Chance(15)) return NAME(260, u'p');
  return s_Bad[Random(static_cast<unsigned int>(s_Bad.size()))];
}

// Another way to write the same path.
NAME CGenerator::Disguise(NAME path) {
  if (Chance(60)) return path;
  if (Chance(50)) {
    for (char16_t& c : path) {
      if (c >= u'a' && c <= u'z' && Chance(40)) {
        c = static_cast<char16_t>(c - 32);
      } else if (c >= u'A' && c <= u'Z' && Chance(40)) {
        c = static_cast<char16_t>(c + 32);
      }
    }
  }
  static const std::array<NAME, 7> s_Ends = {u"\\", u".", u" ", u" \\", u"\\.", u". .", u"\\ "};
  if (Chance(20)) path += s_Ends[Random(static_cast<unsigned int>(s_Ends.size()))];
  if (Chance(20)) path = u"\\" + path;
  if (Chance(10)) path = u"  " + path;
  if (Chance(20)) {
    const std::size_t at = path.find(u'\\', 1);
    if (at != NAME::npos && at + 1 < path.size() && path[at + 1] != u'\\') {
      path.insert(at, Chance(50) ? u" " : u".");
      path.insert(at + 2, u"  ");
    }
  }
  return path;
}

unsigned int CGenerator::PickSize(const CTwinVolume& volume, unsigned int current) {
  const unsigned int cluster = volume.ClusterBytes();
  const unsigned long long free = static_cast<unsigned long long>(volume.FreeClusters()) * cluster;
  const unsigned int clusters = std::max(1u, m_nMaxFileBytes / cluster);
  unsigned long long size = 0;
  switch (Random(16)) {
    case 0:
      return 0;
    case 1:
      return current;
    case 2:
    case 3:
      size = Random(3 * cluster);
      break;
    case 4:
    case 5:
      size = static_cast<unsigned long long>(Random(clusters) + 1) * cluster + Random(3) - 1;
      break;
    case 6:
      size = current + Random(3) - 1;
      break;
    case 7:  // as much as there is, and one cluster more
      if (free > 4ull * m_nMaxFileBytes) return Random(cluster);
      return static_cast<unsigned int>(free + (Chance(50) ? 0 : 1));
    case 8:
      return Chance(30) ? 0u - cluster + Random(3) : Chance(30) ? 0xFFFFFFFFu : 1u;
    case 9:
      size = CTwinVolume::BLOCK_BYTES + Random(3) - 1;
      break;
    case 10:
      size = current / 2;
      break;
    default:
      size = Random(m_nMaxFileBytes / (1 + Random(8)) + 1);
      break;
  }
  return static_cast<unsigned int>(size > 0xFFFFFFFFu ? 0 : std::min<unsigned long long>(size, m_nMaxFileBytes));
}

unsigned int CGenerator::PickCount() {
  switch (Random(10)) {
    case 0:
      return Random(3);
    case 1:
      return CTwinVolume::BLOCK_BYTES + Random(3) - 1;
    case 2:
      return Random(m_nMaxFileBytes + 1);
    case 3:
      return Chance(30) ? 0xFFFFFFFFu : m_nMaxFileBytes;
    default:
      return Random(5000);
  }
}

unsigned int CGenerator::PickAttributes() {
  static const std::vector<unsigned int> s_Attributes = {0, 0x20, 0x01, 0x02, 0x04, 0x27, 0x22, 0x120, 0x10020};
  return OneOf(s_Attributes);
}

unsigned int CGenerator::FreeVariable(const IRunView& run, bool file) {
  const unsigned int end = file ? FILE_VARIABLES : FIND_VARIABLES;
  for (unsigned int i = 0; i < end; ++i) {
    if (file ? !run.Twin().IsFileHandle(run.FileHandle(i)) : !run.Twin().IsFindHandle(run.FindHandle(i))) return i;
  }
  return Random(end);
}

void CGenerator::PickHandle(const IRunView& run, bool file, OPERATION& operation) {
  if (Chance(2)) {
    static const std::vector<int> s_Invalid = {-1, 32, 160, 161, 0x7FFFFFFF, -0x7FFFFFFF - 1};
    operation.Literal = true;
    operation.Handle = OneOf(s_Invalid);
    return;
  }
  std::vector<unsigned int> open;
  for (unsigned int i = 0; i < (file ? FILE_VARIABLES : FIND_VARIABLES); ++i) {
    if (file ? run.Twin().IsFileHandle(run.FileHandle(i)) : run.Twin().IsFindHandle(run.FindHandle(i)))
      open.push_back(i);
  }
  // Dead handles are tried now and then, and closed most of the time.
  if (file && operation.Kind != OP::Close && !Chance(10)) {
    open.erase(std::remove_if(open.begin(), open.end(),
                              [&run](unsigned int i) { return run.Twin().ObjectOf(run.FileHandle(i)) == nullptr; }),
               open.end());
  }
  operation.Variable = open.empty() || Chance(2) ? Random(4) : OneOf(open);
}

OPERATION CGenerator::Next(const IRunView& run) {
  OPERATION operation;
  operation.Volume = Random(static_cast<unsigned int>(run.Twin().Volumes()));
  operation.Seed = static_cast<unsigned int>(m_Random());
  const CTwinVolume& volume = run.Twin().Volume(operation.Volume);
  if (!m_Pending.empty()) {
    operation.Kind = OP::Create;
    operation.Path = m_PendingDir + m_Pending;
    operation.Variable = FreeVariable(run, true);
    m_Pending.clear();
    return operation;
  }
  operation.Kind = PickKind(volume);
  switch (operation.Kind) {
    case OP::Open:
      operation.Variable = FreeVariable(run, true);
      operation.Path = PickPath(volume, Chance(30), true);
      break;
    case OP::Create:
      operation.Variable = FreeVariable(run, true);
      operation.Attributes = PickAttributes() | (Chance(5) ? 0x10u : 0u);
      operation.Number = Chance(50) ? 0 : PickSize(volume, 0);
      if (Chance(70)) operation.Number = std::min(operation.Number, m_nMaxFileBytes);
      if (Chance(3)) {
        // A short name that the name after it would get.
        const NODE_PTR dir = PickNode(volume, true, false);
        m_PendingDir = dir == nullptr ? NAME() : PathTo(*dir) + u"\\";
        m_Pending = u"two words.txt";
        operation.Path = m_PendingDir + u"TWOWO~" + NEXT_NUMBER + u".TXT";
      } else {
        operation.Path = Chance(2) ? BadPath() : Chance(4) ? PickPath(volume, true, true) : Disguise(NewPath(volume));
      }
      break;
    case OP::CreateDir:
      operation.Attributes = PickAttributes() | (Chance(20) ? 0x10u : 0u);
      operation.Path = Chance(2) ? BadPath() : Chance(4) ? PickPath(volume, true, true) : Disguise(NewPath(volume));
      break;
    case OP::Delete:
    case OP::ReadBack:
      operation.Path = PickPath(volume, operation.Kind == OP::Delete && Chance(40), true);
      break;
    case OP::List:
      operation.Path = PickPath(volume, true, Chance(5));
      break;
    case OP::FindFirst:
      operation.Variable = FreeVariable(run, false);
      operation.Path = PickPath(volume, true, Chance(5));
      break;
    case OP::Rename:
      operation.Path = PickPath(volume, Chance(30), true);
      operation.Path2 = Chance(10) ? PickPath(volume, true, true) : Chance(30) ? NewPath(volume) : NewName();
      break;
    case OP::Move:
      operation.Path = PickPath(volume, Chance(30), true);
      operation.ToRoot = Chance(20);
      if (!operation.ToRoot) operation.Path2 = PickPath(volume, true, Chance(4));
      break;
    case OP::FindNext:
    case OP::FindClose:
      PickHandle(run, false, operation);
      break;
    default:
      PickHandle(run, true, operation);
      break;
  }
  const TWIN_OBJECT* object =
      run.Twin().ObjectOf(operation.Literal ? operation.Handle : run.FileHandle(operation.Variable));
  const unsigned int size = object == nullptr ? 0 : object->Node->Size();
  if (object != nullptr && operation.Kind == OP::Write && object->Node->Dir) operation.Kind = OP::Read;
  if (object != nullptr && operation.Kind == OP::WriteEx && object->Node->Dir) operation.Kind = OP::ReadEx;
  const bool changes = operation.Kind == OP::SetSize || operation.Kind == OP::SetAttribute;
  if (object != nullptr && changes && object->Key != Upper(CTwinVolume::PathOf(*object->Node)) && !Chance(3)) {
    operation.Kind = OP::GetAttribute;
  }
  switch (operation.Kind) {
    case OP::Read:
    case OP::Write:
      operation.Number = PickCount();
      break;
    case OP::ReadEx:
    case OP::WriteEx:
      operation.Number = PickCount();
      operation.Offset = Random(size + 2);
      if (Chance(15)) operation.Offset = Random(size / CTwinVolume::BLOCK_BYTES + 1) * CTwinVolume::BLOCK_BYTES;
      if (Chance(2)) operation.Offset = -static_cast<long long>(Random(CTwinVolume::BLOCK_BYTES)) - 1;
      if (Chance(2)) operation.Offset = (1ll << 32) + Random(100);
      break;
    case OP::Seek:
      operation.Attributes = Chance(4) ? 3 + Random(5) : Random(3);
      operation.Number = Chance(8) ? 0xFFFFFFFFu - Random(4) : Random(size + 10);
      break;
    case OP::SetSize:
      operation.Number = PickSize(run.Twin().Volume(operation.Volume), size);
      if (object != nullptr && object->Node->Dir) {
        // Directories only grow.
        const std::size_t bytes = object->Node->Slots.size() * 32;
        operation.Number = static_cast<unsigned int>(bytes + (Chance(70) ? 0 : Random(2 * volume.ClusterBytes())));
      }
      break;
    case OP::SetAttribute:
      operation.Attributes = PickAttributes() | (object != nullptr && object->Node->Dir ? 0x10u : 0u);
      break;
    default:
      break;
  }
  // A path must not be too long for the text of the longest one.
  if (operation.Path.size() > 400) operation.Path.resize(400);
  if (operation.Path2.size() > 400) operation.Path2.resize(400);
  return operation;
}
