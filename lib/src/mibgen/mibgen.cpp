// The MIB module generator: collects what the agent publishes, names every
// object and OID level, and writes the SMIv2 text.
#include "snmp/snmpinternal.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/atomicfile.h"
#include "snmp/snmpcodec.h"
#include "zelta/mibgen.h"
#include "zelta/mibtypes.h"
#include "zelta/param.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"
#include "zelta/text.h"

namespace Quorvel::Kvan::SNMP {
namespace {

using Oid = std::vector<unsigned long>;

constexpr size_t kMaxDescriptor = 64;  // RFC 2578's limit
constexpr unsigned long kMaxSubId = 0xFFFFFFFFUL;
constexpr const char* kIndexSyntax = "Unsigned32 (0..4294967295)";  // any sub-identifier the agent takes

// What stops a module from being made; its text becomes the caller's error.
struct MibError {
  std::string message;
};

[[noreturn]] void fail(const std::string& message) { throw MibError{message}; }

bool startsWith(const Oid& oid, const Oid& prefix) {
  return oid.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), oid.begin());
}

// The nodes of SNMPv2-SMI a module can hang from; `iso` is built into ASN.1.
const std::vector<std::pair<const char*, Oid>>& smiNodes() {
  static const std::vector<std::pair<const char*, Oid>> kNodes{
      {"iso", {1}},
      {"org", {1, 3}},
      {"dod", {1, 3, 6}},
      {"internet", {1, 3, 6, 1}},
      {"directory", {1, 3, 6, 1, 1}},
      {"mgmt", {1, 3, 6, 1, 2}},
      {"mib-2", {1, 3, 6, 1, 2, 1}},
      {"transmission", {1, 3, 6, 1, 2, 1, 10}},
      {"experimental", {1, 3, 6, 1, 3}},
      {"private", {1, 3, 6, 1, 4}},
      {"enterprises", {1, 3, 6, 1, 4, 1}},
      {"security", {1, 3, 6, 1, 5}},
      {"snmpV2", {1, 3, 6, 1, 6}},
      {"snmpDomains", {1, 3, 6, 1, 6, 1}},
      {"snmpProxys", {1, 3, 6, 1, 6, 2}},
      {"snmpModules", {1, 3, 6, 1, 6, 3}},
  };
  return kNodes;
}

bool isDescriptor(const std::string& name) {
  if (name.empty() || name.size() > kMaxDescriptor || !islower(static_cast<unsigned char>(name[0]))) return false;
  return std::all_of(name.begin(), name.end(), [](char c) { return isalnum(static_cast<unsigned char>(c)) != 0; });
}

std::string capitalised(std::string s) {
  if (!s.empty()) s[0] = static_cast<char>(toupper(static_cast<unsigned char>(s[0])));
  return s;
}

// Lower camel case from the letter and digit runs of `key`: "route_table"
// gives routeTable, "HTTPPort" httpPort; `prefix` goes in front. "" when the
// key has no letter or digit.
std::string camelFromKey(const std::string& key, const std::string& prefix) {
  std::vector<std::string> runs(1);
  for (char c : key) {
    if (isalnum(static_cast<unsigned char>(c)) != 0)
      runs.back() += c;
    else if (!runs.back().empty())
      runs.emplace_back();
  }
  if (runs.back().empty()) runs.pop_back();
  if (runs.empty()) return "";
  std::string& first = runs.front();
  if (prefix.empty()) {
    // An upper-case run at the start is an abbreviation: lower all of it but
    // the letter that starts the next word.
    size_t upper = 0;
    while (upper < first.size() && isupper(static_cast<unsigned char>(first[upper]))) ++upper;
    const size_t lowerUpTo = upper == first.size() ? upper : std::max<size_t>(upper, 2) - 1;
    for (size_t i = 0; i < lowerUpTo; ++i) first[i] = static_cast<char>(tolower(static_cast<unsigned char>(first[i])));
  } else {
    first = capitalised(first);
  }
  std::string out = prefix + first;
  for (size_t i = 1; i < runs.size(); ++i) out += capitalised(runs[i]);
  return out;
}

// "ZELTA-DEMO-MIB" gives zeltaDemoMIB.
std::string identityFromModule(const std::string& module) {
  std::string out;
  size_t start = 0;
  while (start <= module.size()) {
    size_t end = module.find('-', start);
    if (end == std::string::npos) end = module.size();
    std::string part = module.substr(start, end - start);
    if (out.empty())
      out = Common::toLower(part);
    else
      out += part == "MIB" ? part : capitalised(Common::toLower(part));
    start = end + 1;
  }
  return out;
}

// Host text for a quoted string: printable ASCII and line breaks, no quote.
void checkText(const std::string& text, const std::string& what) {
  for (char c : text) {
    if (c == '"') fail(what + " holds a double quote, which cannot stand in a MIB string");
    if (c != '\n' && (c < 0x20 || c > 0x7e)) fail(what + " holds a character other than printable ASCII");
  }
}

// Keys in default texts: nothing that would end the string.
std::string printableKey(const std::string& key) {
  std::string out = key;
  for (char& c : out)
    if (c == '"' || c < 0x20 || c > 0x7e) c = '?';
  return out;
}

// A quoted string as DESCRIPTION clauses give it: each line indented by
// `indent`, words wrapped before column 78, the host's line breaks kept.
std::string quoted(const std::string& text, size_t indent) {
  const std::string pad(indent, ' ');
  std::string out = pad + "\"";
  size_t column = out.size();
  size_t start = 0;
  bool firstLine = true;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (!firstLine) out += "\n" + pad + " ", column = indent + 1;
    bool lineStart = true;
    for (size_t at = start; at < end;) {
      size_t wordEnd = text.find(' ', at);
      if (wordEnd == std::string::npos || wordEnd > end) wordEnd = end;
      const std::string word = text.substr(at, wordEnd - at);
      at = wordEnd + 1;
      if (word.empty()) continue;
      if (!lineStart && column + 1 + word.size() > 77) {
        out += "\n" + pad + " ";
        column = indent + 1;
        lineStart = true;
      }
      if (!lineStart) out += ' ', ++column;
      out += word;
      column += word.size();
      lineStart = false;
    }
    firstLine = false;
    start = end + 1;
  }
  return out + "\"";
}

// Descriptors in use, compared without case as RFC 2578 asks, with who uses them.
class Names {
 public:
  bool isFree(const std::string& name) const { return taken.count(Common::toLower(name)) == 0; }
  void take(const std::string& name, const std::string& owner) {
    auto [it, added] = taken.emplace(Common::toLower(name), owner);
    if (!added) fail(owner + ": descriptor " + name + " is already used by " + it->second);
  }
  // The first of `base`, base2, base3, ... (cut short so that base and every
  // suffix fit in a descriptor) whose names with every suffix are all free;
  // takes them.
  std::string claim(const std::string& base, const std::vector<std::string>& suffixes, const std::string& owner) {
    size_t longest = 0;
    for (const std::string& suffix : suffixes) longest = std::max(longest, suffix.size());
    for (unsigned counter = 1;; ++counter) {
      const std::string tail = counter == 1 ? "" : std::to_string(counter);
      const std::string stem = base.substr(0, kMaxDescriptor - longest - tail.size()) + tail;
      bool free = true;
      for (const std::string& suffix : suffixes) free = free && isFree(stem + suffix);
      if (!free) continue;
      for (const std::string& suffix : suffixes) take(stem + suffix, owner);
      return stem;
    }
  }

 private:
  std::map<std::string, std::string> taken;
};

struct Column {
  unsigned int number = 0;
  std::string name;
  std::string syntax;
  std::string sequenceType;
  const char* access = "read-only";
  bool isIndex = false;
  bool isStatus = false;
  std::string defval;  // DEFVAL's value; "" = none
  std::string note;    // said after the DESCRIPTION: what a SET takes when SYNTAX holds more
};

struct Object {
  std::string key;
  std::string owner;  // how errors name it
  Oid oid;            // the scalar's OBJECT-TYPE or the table
  bool isTable = false;
  mib_access access = READONLY;
  const MibObjectText* text = nullptr;
  std::string name;             // scalar descriptor or table stem
  std::string syntax;           // a scalar's
  std::vector<Column> columns;  // in column order
  std::vector<unsigned int> index;
  bool impliedIndex = false;  // rows take any number of index components
};

struct Notification {
  std::string name;
  std::string description;
  Oid oid;
};

struct Published {
  std::string key;
  const MibEntry* entry;
};

const char* codecSyntaxCheck(const SnmpCodec& codec, const Bounds& bounds) {
  if (!bounds.set) return nullptr;
  if (codec.type() == INTEGER && static_cast<int32_t>(bounds.min) > static_cast<int32_t>(bounds.max))
    return "its range holds no value";
  if (codec.type() == STRING && bounds.min > std::min<size_t>(bounds.max, internal::kMaxStringLen))
    return "its length range holds no length the agent takes (at most 1023 bytes)";
  return nullptr;
}

// What a cell serves until it is set: the cells of a row a manager creates,
// and those a host's or a file's row leaves out, start there.
SnmpValue cellDefault(const SnmpCodec& codec) {
  SnmpValue value;
  codec.toSnmp(codec.defaultValue(), value);
  return value;
}

// Whether a SET of `value` to a column with these bounds passes the agent's
// checks, asked of a binding that holds it.
bool setTakes(const SnmpCodec& codec, const Bounds& bounds, const SnmpValue& value) {
  netsnmp_variable_list vb{};
  codec.answer(&vb, value);
  SnmpValue checked;
  const bool takes = codec.checkSet(vb, bounds, checked) == SNMP_ERR_NOERROR && codec.inRange(checked, bounds);
  snmp_free_var_internals(&vb);
  return takes;
}

// A DEFVAL's value: a number, or a quoted string (the defaults of the types
// whose cells have one are printable).
std::string defvalText(const SnmpCodec& codec, const SnmpValue& value) {
  if (std::string(codec.smiBaseType()) != "OCTET STRING") return std::to_string(value.num);
  return "\"" + value.bytes + "\"";
}

class Generator {
 public:
  explicit Generator(const MibModuleOptions& opts) : options(opts) {}

  std::string run(const std::vector<Published>& published) {
    checkModule();
    for (const Published& p : published) collect(p);
    if (objects.empty()) fail("module " + options.moduleName + ": no object is published");
    std::sort(objects.begin(), objects.end(), [](const Object& a, const Object& b) { return a.oid < b.oid; });
    for (size_t i = 1; i < objects.size(); ++i) {
      // Sorted, an object below another follows it at once.
      if (startsWith(objects[i].oid, objects[i - 1].oid))
        fail(objects[i].owner + (objects[i].oid == objects[i - 1].oid ? " has the OID of " : " lies inside ") +
             objects[i - 1].owner);
    }
    collectNotifications();
    placeNodes();
    nameEverything();
    return render();
  }

 private:
  void checkModule() {
    const std::string& module = options.moduleName;
    const bool nameOk = !module.empty() && module.size() <= kMaxDescriptor &&
                        isupper(static_cast<unsigned char>(module[0])) && module.back() != '-' &&
                        module.find("--") == std::string::npos && std::all_of(module.begin(), module.end(), [](char c) {
                          return isalnum(static_cast<unsigned char>(c)) != 0 || c == '-';
                        });
    if (!nameOk)
      fail("module name '" + module + "' is no module name (an upper-case letter, then letters, digits, hyphens)");
    if (!internal::parseOid(options.oid, moduleOid) || moduleOid.size() < 2 || moduleOid[0] != 1)
      fail("module OID '" + options.oid + "' is no OID below iso (1)");
    for (const auto& [name, oid] : smiNodes()) {
      if (oid == moduleOid) fail("module OID " + Common::flatten(moduleOid) + " is SNMPv2-SMI's " + name);
      if (startsWith(moduleOid, oid)) root = {name, oid};
    }
    identity = options.identityName.empty() ? identityFromModule(module) : options.identityName;
    // Its longest offspring names the conformance part's groups.
    const char* longest = options.notifications.empty() ? "Compliances" : "NotificationGroup";
    if (!isDescriptor(identity) || identity.size() + std::strlen(longest) > kMaxDescriptor)
      fail("identity name '" + identity + "' is no descriptor of at most " +
           std::to_string(kMaxDescriptor - std::strlen(longest)) + " characters");
    if (!options.namePrefix.empty() && !isDescriptor(options.namePrefix))
      fail("name prefix '" + options.namePrefix + "' is no descriptor");
    const std::string& date = options.revisionDate;
    bool dateOk = date.size() == 10;
    for (size_t i = 0; dateOk && i < date.size(); ++i)
      dateOk = i == 4 || i == 7 ? date[i] == '-' : isdigit(static_cast<unsigned char>(date[i])) != 0;
    dateOk = dateOk && date.substr(0, 4) >= "1990" && date.substr(5, 2) >= "01" && date.substr(5, 2) <= "12" &&
             date.substr(8, 2) >= "01" && date.substr(8, 2) <= "31";
    if (!dateOk) fail("revision date '" + date + "' is no date YYYY-MM-DD");
    checkText(options.revisionDescription, "the revision description");
    checkText(options.organization, "the organization");
    checkText(options.contactInfo, "the contact information");
    checkText(options.description, "the module description");
    for (char c : options.headerComment) {
      if (c != '\n' && (c < 0x20 || c > 0x7e)) fail("the header comment holds a character other than printable ASCII");
    }
    if (options.headerComment.find("--") != std::string::npos)
      fail("the header comment holds \"--\", which ends a comment");
  }

  void collect(const Published& p) {
    const MibEntry* entry = p.entry;
    if (entry->get_access() == NOACCESS) return;  // hidden at run time
    Object object;
    object.key = p.key;
    object.access = entry->get_access();
    object.owner = "object '" + printableKey(p.key) + "'";
    Oid oid = entry->oidParts();
    if (oid.empty()) fail(object.owner + ": its OID '" + entry->getOid() + "' does not parse");
    object.owner += " at " + Common::flatten(oid);
    auto described = options.objects.find(p.key);
    if (described != options.objects.end()) {
      object.text = &described->second;
      checkText(object.text->description, object.owner + ": the description");
      for (const auto& [number, text] : object.text->columnDescriptions)
        checkText(text, object.owner + ": the description of column " + std::to_string(number));
    }
    if (const auto* leaf = dynamic_cast<const MibLeaf*>(entry)) {
      if (oid.size() < 2 || oid.back() != 0) fail(object.owner + ": a scalar's OID ends in .0");
      oid.pop_back();
      const SnmpCodec* codec = SnmpCodec::of(leaf->getType());
      if (codec == nullptr) fail(object.owner + ": its type cannot be published");
      long min = 0;
      long max = 0;
      const Bounds bounds =
          leaf->getBounds(min, max) ? Bounds::of(static_cast<uint32_t>(min), static_cast<uint32_t>(max)) : Bounds();
      if (const char* why = codecSyntaxCheck(*codec, bounds)) fail(object.owner + ": " + why);
      object.syntax = codec->smiSyntax(bounds);
      imports.insert(codec->smiBaseType());
    } else if (const auto* table = dynamic_cast<const DynMibTable*>(entry)) {
      if (oid.size() < 2 || oid.back() != 1) fail(object.owner + ": a table's OID is its entry's, ending in .1");
      oid.pop_back();
      object.isTable = true;
      collectColumns(object, table->getDefinition());
    } else {
      fail(object.owner + ": an object of a kind no module describes");
    }
    if (oid.size() <= moduleOid.size() || !startsWith(oid, moduleOid))
      fail(object.owner + " lies outside the module's OID " + Common::flatten(moduleOid));
    object.oid = std::move(oid);
    objects.push_back(std::move(object));
  }

  void collectColumns(Object& object, const TableDef* def) {
    if (def == nullptr) fail(object.owner + ": the table has no definition");
    if (def->rowStatusColumn == 0) fail(object.owner + ": the table has no RowStatus column");
    if (def->indexColumns.empty()) fail(object.owner + ": the table has no index column");
    if (def->numIdx != -1 && static_cast<size_t>(def->numIdx) != def->indexColumns.size())
      fail(object.owner + ": its rows have " + std::to_string(def->numIdx) + " index components but " +
           std::to_string(def->indexColumns.size()) + " index columns");
    // Rows of any length of index: an IMPLIED OBJECT IDENTIFIER is the one
    // INDEX whose instances are any sub-identifiers, as many as the row has.
    object.impliedIndex = def->numIdx == -1;
    if (object.impliedIndex && def->indexColumns.size() != 1)
      fail(object.owner + ": its rows take any number of index components, which one index column can declare, "
                          "but it has " +
           std::to_string(def->indexColumns.size()));
    const bool readOnly = object.access == READONLY;
    std::map<unsigned int, Column> columns;
    auto add = [&](unsigned long number, Column column) {
      if (number == 0 || number > kMaxSubId)
        fail(object.owner + ": column " + std::to_string(number) + " is no column");
      column.number = static_cast<unsigned int>(number);
      if (!columns.emplace(column.number, column).second)
        fail(object.owner + ": column " + std::to_string(number) + " has two roles");
    };
    for (unsigned long number : def->indexColumns) {
      Column column;
      column.isIndex = true;
      column.syntax = object.impliedIndex ? "OBJECT IDENTIFIER" : kIndexSyntax;
      column.sequenceType = object.impliedIndex ? "OBJECT IDENTIFIER" : "Unsigned32";
      column.access = "not-accessible";
      add(number, column);
      object.index.push_back(static_cast<unsigned int>(number));
    }
    if (!object.impliedIndex) imports.insert("Unsigned32");
    Column status;
    status.isStatus = true;
    if (readOnly) {
      // RowStatus is read-create by definition; a table nobody may write
      // shows the states its rows can be in.
      status.syntax = "INTEGER { active(1), notInService(2), notReady(3) }";
      status.sequenceType = "INTEGER";
    } else {
      status.syntax = status.sequenceType = "RowStatus";
      imports.insert("RowStatus");
    }
    status.access = readOnly ? "read-only" : "read-create";
    add(def->rowStatusColumn, status);
    for (const auto& [number, field] : def->fields) {
      const SnmpCodec* codec = SnmpCodec::of(field.type);
      const std::string what = object.owner + ": column " + std::to_string(number);
      if (codec == nullptr) fail(what + " has a type no column can have");
      const Bounds bounds(field.min, field.max);
      if (const char* why = codecSyntaxCheck(*codec, bounds)) fail(what + ": " + why);
      Column column;
      column.syntax = codec->smiSyntax(bounds);
      column.sequenceType = codec->smiBaseType();
      // The agent creates rows for read-write tables as well.
      column.access = readOnly ? "read-only" : "read-create";
      const SnmpValue start = cellDefault(*codec);
      if (!setTakes(*codec, bounds, start)) widen(*codec, bounds, start, readOnly, column);
      if (!readOnly && codec->hasCellDefault()) column.defval = defvalText(*codec, start);
      imports.insert(codec->smiBaseType());
      add(number, column);
    }
    if (object.text != nullptr) {
      for (const auto* given : {&object.text->columnNames, &object.text->columnDescriptions}) {
        for (const auto& named : *given) {
          if (columns.count(named.first) == 0)
            fail(object.owner + ": names column " + std::to_string(named.first) + ", which the table does not have");
        }
      }
    }
    for (auto& [number, column] : columns) object.columns.push_back(column);
  }

  // A column whose cells start at a value its SET refuses: the SYNTAX holds
  // that value too, as a value (a length for a string) of its own next to the
  // bounds, "Integer32 (0 | 1..16)", and the DESCRIPTION tells what a SET
  // takes. Only INTEGER and STRING columns have bounds.
  static void widen(const SnmpCodec& codec, const Bounds& bounds, const SnmpValue& start, bool readOnly,
                    Column& column) {
    const bool number = codec.type() == INTEGER;
    const long long point = number ? start.num : static_cast<long long>(start.bytes.size());
    const long long lowest = number ? static_cast<int32_t>(bounds.min) : static_cast<long long>(bounds.min);
    // The bounds are the codec's innermost parentheses.
    const size_t open = column.syntax.rfind('(');
    const size_t close = column.syntax.find(')', open);
    ZELTA_ASSERT(open != std::string::npos && close != std::string::npos, "a SET refuses a default by its bounds");
    const std::string taken = column.syntax.substr(open + 1, close - open - 1);
    const std::string unit = number ? "" : " bytes";
    if (point < lowest)
      column.syntax.insert(open + 1, std::to_string(point) + " | ");
    else
      column.syntax.insert(close, " | " + std::to_string(point));
    column.note = readOnly ? "The device gives it " + taken + unit + "; a row holds " + std::to_string(point) + unit +
                                 " until it does."
                           : "A SET takes " + taken + unit + " only; a row holds " + std::to_string(point) + unit +
                                 " until one is set.";
  }

  void collectNotifications() {
    for (const MibNotificationText& given : options.notifications) {
      Notification n;
      n.name = given.name;
      n.description = given.description.empty() ? "Sent by the agent." : given.description;
      const std::string owner = "notification " + given.name;
      if (!isDescriptor(n.name)) fail("notification name '" + n.name + "' is no descriptor");
      checkText(given.description, owner + ": the description");
      if (!internal::parseOid(given.oid, n.oid) || n.oid.size() <= moduleOid.size() || !startsWith(n.oid, moduleOid))
        fail(owner + ": OID '" + given.oid + "' does not lie below the module's OID");
      for (const Object& object : objects) {
        if (startsWith(n.oid, object.oid) || startsWith(object.oid, n.oid))
          fail(owner + ": OID " + Common::flatten(n.oid) + " meets " + object.owner);
      }
      for (const Notification& other : notifications)
        if (startsWith(n.oid, other.oid) || startsWith(other.oid, n.oid))
          fail(owner + " has the OID of notification " + other.name);
      notifications.push_back(std::move(n));
    }
  }

  // Every OID level between SNMPv2-SMI's node and the module, and between the
  // module and its objects and notifications, gets a node; then the
  // conformance part.
  void placeNodes() {
    for (size_t len = root.second.size() + 1; len < moduleOid.size(); ++len)
      nodes.emplace(Oid(moduleOid.begin(), moduleOid.begin() + static_cast<long>(len)), "");
    unsigned long highest = 0;
    for (const Object& object : objects) {
      highest = std::max(highest, object.oid[moduleOid.size()]);
      for (size_t len = moduleOid.size() + 1; len < object.oid.size(); ++len)
        nodes.emplace(Oid(object.oid.begin(), object.oid.begin() + static_cast<long>(len)), "");
    }
    for (const Notification& n : notifications) {
      highest = std::max(highest, n.oid[moduleOid.size()]);
      for (size_t len = moduleOid.size() + 1; len < n.oid.size(); ++len)
        nodes.emplace(Oid(n.oid.begin(), n.oid.begin() + static_cast<long>(len)), "");
    }
    unsigned long arc = options.conformanceArc;
    if (arc == 0) {
      if (highest == kMaxSubId) fail("no arc is left below the module's OID for the conformance part");
      arc = highest + 1;
    }
    conformanceOid = moduleOid;
    conformanceOid.push_back(arc);
    for (const Object& object : objects) {
      if (object.oid[moduleOid.size()] == arc)
        fail("conformance arc " + std::to_string(arc) + " is taken by " + object.owner);
    }
    for (const Notification& n : notifications) {
      if (n.oid[moduleOid.size()] == arc)
        fail("conformance arc " + std::to_string(arc) + " is taken by notification " + n.name);
    }
  }

  void nameEverything() {
    for (const auto& [name, oid] : smiNodes()) names.take(name, "SNMPv2-SMI");
    // Names of types differ from a descriptor only in case, which is one too many.
    for (const char* type : {"Integer32", "Unsigned32", "IpAddress", "TimeTicks", "RowStatus"})
      names.take(type, "an SMI type");
    names.take(identity, "the MODULE-IDENTITY");
    for (const char* suffix : {"Conformance", "Groups", "Compliances", "ObjectGroup", "Compliance"})
      names.take(identity + suffix, "the conformance part");
    if (!notifications.empty()) names.take(identity + "NotificationGroup", "the conformance part");
    for (const Notification& n : notifications) names.take(n.name, "notification " + n.name);
    // The host's names first, so that made-up names step aside for them.
    for (Object& object : objects) {
      if (object.text != nullptr && !object.text->name.empty()) {
        object.name = object.text->name;
        if (!isDescriptor(object.name)) fail(object.owner + ": name '" + object.name + "' is no descriptor");
        std::vector<std::string> suffixes = object.isTable ? tableSuffixes(object) : std::vector<std::string>{""};
        for (const std::string& suffix : suffixes) {
          if (object.name.size() + suffix.size() > kMaxDescriptor)
            fail(object.owner + ": name '" + object.name + "' makes " + object.name + suffix +
                 ", longer than 64 characters");
          names.take(object.name + suffix, object.owner);
        }
      }
      if (!object.isTable || object.text == nullptr) continue;
      for (Column& column : object.columns) {
        auto given = object.text->columnNames.find(column.number);
        if (given == object.text->columnNames.end()) continue;
        column.name = given->second;
        if (!isDescriptor(column.name)) fail(object.owner + ": column name '" + column.name + "' is no descriptor");
        names.take(column.name, object.owner);
      }
    }
    for (const auto& [text, name] : options.nodeNames) {
      Oid oid;
      if (!internal::parseOid(text, oid)) fail("node name " + name + ": '" + text + "' is no OID");
      if (nodes.count(oid) == 0) continue;
      if (!isDescriptor(name)) fail("node " + Common::flatten(oid) + ": name '" + name + "' is no descriptor");
      names.take(name, "node " + Common::flatten(oid));
      nodes[oid] = name;
    }
    for (Object& object : objects) {
      if (!object.name.empty()) continue;
      const std::string base = camelFromKey(object.key, options.namePrefix);
      if (base.empty()) fail(object.owner + ": key has no letter or digit to make a descriptor of; give it a name");
      if (!islower(static_cast<unsigned char>(base[0])))
        fail(object.owner + ": key does not start with a letter; give it a name, or set a name prefix");
      object.name =
          names.claim(base, object.isTable ? tableSuffixes(object) : std::vector<std::string>{""}, object.owner);
    }
    // Parents sort before their children, so each parent has its name here.
    for (auto& [oid, name] : nodes) {
      if (!name.empty()) continue;
      std::string parent = nameOf(Oid(oid.begin(), oid.end() - 1));
      parent.erase(std::remove(parent.begin(), parent.end(), '-'), parent.end());
      if (isdigit(static_cast<unsigned char>(parent.back()))) parent += 'x';
      name = names.claim(parent + std::to_string(oid.back()), {""}, "node " + Common::flatten(oid));
    }
    for (Object& object : objects) {
      if (!object.isTable) continue;
      for (Column& column : object.columns) {
        if (column.name.empty()) column.name = object.name + defaultColumnSuffix(column);
      }
    }
  }

  // What a table's stem is followed by: its table, its entry and each column
  // the host left unnamed.
  static std::vector<std::string> tableSuffixes(const Object& object) {
    std::vector<std::string> suffixes{"Table", "Entry"};
    for (const Column& column : object.columns) {
      const bool named = object.text != nullptr && object.text->columnNames.count(column.number) != 0;
      if (!named) suffixes.push_back(defaultColumnSuffix(column));
    }
    return suffixes;
  }
  static std::string defaultColumnSuffix(const Column& column) {
    return column.isStatus ? "RowStatus" : "Column" + std::to_string(column.number);
  }

  std::string nameOf(const Oid& oid) const {
    if (oid == moduleOid) return identity;
    auto node = nodes.find(oid);
    if (node != nodes.end()) return node->second;
    for (const auto& [name, known] : smiNodes()) {
      if (known == oid) return name;
    }
    ZELTA_ASSERT(false, "every parent is named");
    return "";
  }

  std::string assignment(const Oid& oid) const {
    return "::= { " + nameOf(Oid(oid.begin(), oid.end() - 1)) + " " + std::to_string(oid.back()) + " }\n";
  }

  static std::string objectType(const std::string& name, const std::string& syntax, const char* access,
                                const std::string& description, const std::string& extra) {
    return name + " OBJECT-TYPE\n    SYNTAX      " + syntax + "\n    MAX-ACCESS  " + access +
           "\n    STATUS      current\n    DESCRIPTION\n" + quoted(description, 8) + "\n" + extra;
  }

  // `items` joined by ", " after `lead`, wrapped below the first item.
  static std::string list(const std::string& lead, const std::vector<std::string>& items, const std::string& end) {
    std::string out = lead;
    size_t column = out.size();
    const std::string pad(lead.size(), ' ');
    for (size_t i = 0; i < items.size(); ++i) {
      const std::string item = items[i] + (i + 1 < items.size() ? "," : end);
      if (i > 0 && column + 1 + item.size() > 78) {
        out += "\n" + pad;
        column = pad.size();
      } else if (i > 0) {
        out += ' ';
        ++column;
      }
      out += item;
      column += item.size();
    }
    return out + "\n";
  }

  std::string renderScalar(const Object& object) const {
    const char* access = object.access == READONLY ? "read-only" : "read-write";
    std::string description = "The value of parameter '" + printableKey(object.key) + "'.";
    if (object.text != nullptr && !object.text->description.empty()) description = object.text->description;
    return objectType(object.name, object.syntax, access, description, "    " + assignment(object.oid));
  }

  std::string renderTable(const Object& object) const {
    const std::string table = object.name + "Table";
    const std::string entry = object.name + "Entry";
    const std::string type = capitalised(entry);
    std::string description = "The rows of table parameter '" + printableKey(object.key) + "'.";
    if (object.text != nullptr && !object.text->description.empty()) description = object.text->description;
    std::string out =
        objectType(table, "SEQUENCE OF " + type, "not-accessible", description, "    " + assignment(object.oid)) + "\n";
    std::vector<std::string> index;
    for (unsigned int number : object.index) {
      for (const Column& column : object.columns)
        if (column.number == number) index.push_back((object.impliedIndex ? "IMPLIED " : "") + column.name);
    }
    out += objectType(entry, type, "not-accessible", "A row of " + table + ".",
                      list("    INDEX       { ", index, " }") + "    ::= { " + table + " 1 }\n");
    out += "\n" + type + " ::= SEQUENCE {\n";
    size_t width = 0;
    for (const Column& column : object.columns) width = std::max(width, column.name.size());
    for (size_t i = 0; i < object.columns.size(); ++i) {
      const Column& column = object.columns[i];
      out += "    " + column.name + std::string(width - column.name.size() + 4, ' ') + column.sequenceType +
             (i + 1 < object.columns.size() ? ",\n" : "\n");
    }
    out += "}\n";
    for (const Column& column : object.columns) {
      std::string said = columnDescription(object, column, table);
      if (!column.note.empty()) said += " " + column.note;
      const std::string defval = column.defval.empty() ? "" : "    DEFVAL      { " + column.defval + " }\n";
      out += "\n" + objectType(column.name, column.syntax, column.access, said,
                               defval + "    ::= { " + entry + " " + std::to_string(column.number) + " }\n");
    }
    return out;
  }

  static std::string columnDescription(const Object& object, const Column& column, const std::string& table) {
    if (object.text != nullptr) {
      auto given = object.text->columnDescriptions.find(column.number);
      if (given != object.text->columnDescriptions.end() && !given->second.empty()) return given->second;
    }
    if (column.isIndex) {
      if (object.impliedIndex)
        return "The index of a row of " + table + ": one or more sub-identifiers, as many as the row has.";
      if (object.index.size() == 1) return "The index of a row of " + table + ".";
      const size_t position = std::find(object.index.begin(), object.index.end(), column.number) - object.index.begin();
      return "Component " + std::to_string(position + 1) + " of the index of a row of " + table + ".";
    }
    if (column.isStatus && object.access == READONLY) return "The status of the row.";
    if (column.isStatus)
      return "The status of the row: createAndGo (4) or createAndWait (5) creates it, active (1) and notInService "
             "(2) switch it, destroy (6) deletes it. A row can be active once each of its columns has a value.";
    return "Column " + std::to_string(column.number) + " of table parameter '" + printableKey(object.key) + "'.";
  }

  std::string renderImports() const {
    std::vector<std::string> smi{"MODULE-IDENTITY", "OBJECT-TYPE"};
    if (!notifications.empty()) smi.push_back("NOTIFICATION-TYPE");
    for (const char* type : {"Integer32", "Unsigned32", "IpAddress", "TimeTicks"})
      if (imports.count(type) != 0) smi.push_back(type);
    if (root.first != std::string("iso")) smi.push_back(root.first);
    std::string out = "IMPORTS\n" + list("    ", smi, "") + "        FROM SNMPv2-SMI\n";
    if (imports.count("RowStatus") != 0) out += "    RowStatus\n        FROM SNMPv2-TC\n";
    return out + "    MODULE-COMPLIANCE, OBJECT-GROUP" + (notifications.empty() ? "" : ", NOTIFICATION-GROUP") +
           "\n        FROM SNMPv2-CONF;\n";
  }

  std::string render() const {
    std::string out;
    if (!options.headerComment.empty()) {
      size_t start = 0;
      while (start <= options.headerComment.size()) {
        size_t end = options.headerComment.find('\n', start);
        if (end == std::string::npos) end = options.headerComment.size();
        const std::string line = options.headerComment.substr(start, end - start);
        out += line.empty() ? "--\n" : "-- " + line + "\n";
        start = end + 1;
      }
    }
    const std::string date = options.revisionDate.substr(0, 4) + options.revisionDate.substr(5, 2) +
                             options.revisionDate.substr(8, 2) + "0000Z";
    auto orDefault = [](const std::string& given, const std::string& fallback) {
      return given.empty() ? fallback : given;
    };
    out += options.moduleName + " DEFINITIONS ::= BEGIN\n\n" + renderImports() + "\n";
    out += identity + " MODULE-IDENTITY\n    LAST-UPDATED \"" + date + "\"\n    ORGANIZATION\n" +
           quoted(orDefault(options.organization, "Not given."), 8) + "\n    CONTACT-INFO\n" +
           quoted(orDefault(options.contactInfo, "Not given."), 8) + "\n    DESCRIPTION\n" +
           quoted(orDefault(options.description, "The objects of " + options.moduleName + "."), 8) +
           "\n    REVISION     \"" + date + "\"\n    DESCRIPTION\n" +
           quoted(orDefault(options.revisionDescription, "Generated from the device's parameters."), 8) + "\n    " +
           assignment(moduleOid);

    // Levels and objects in OID order: a level comes right before what it holds.
    auto node = nodes.begin();
    std::vector<std::string> members;
    for (const Object& object : objects) {
      for (; node != nodes.end() && node->first < object.oid; ++node)
        out += "\n" + node->second + " OBJECT IDENTIFIER " + assignment(node->first);
      out += "\n" + (object.isTable ? renderTable(object) : renderScalar(object));
      if (!object.isTable) members.push_back(object.name);
      for (const Column& column : object.columns)
        if (!column.isIndex) members.push_back(column.name);
    }
    for (; node != nodes.end(); ++node) out += "\n" + node->second + " OBJECT IDENTIFIER " + assignment(node->first);
    std::vector<std::string> notificationNames;
    for (const Notification& n : notifications) {
      out += "\n" + n.name + " NOTIFICATION-TYPE\n    STATUS      current\n    DESCRIPTION\n" +
             quoted(n.description, 8) + "\n    " + assignment(n.oid);
      notificationNames.push_back(n.name);
    }

    const std::string conformance = identity + "Conformance";
    out += "\n" + conformance + " OBJECT IDENTIFIER " + assignment(conformanceOid);
    out += identity + "Groups OBJECT IDENTIFIER ::= { " + conformance + " 1 }\n";
    out += identity + "Compliances OBJECT IDENTIFIER ::= { " + conformance + " 2 }\n\n";
    out += identity + "ObjectGroup OBJECT-GROUP\n" + list("    OBJECTS     { ", members, " }") +
           "    STATUS      current\n    DESCRIPTION\n" + quoted("The objects the agent publishes.", 8) +
           "\n    ::= { " + identity + "Groups 1 }\n\n";
    std::string groups = identity + "ObjectGroup";
    if (!notifications.empty()) {
      out += identity + "NotificationGroup NOTIFICATION-GROUP\n" +
             list("    NOTIFICATIONS { ", notificationNames, " }") + "    STATUS      current\n    DESCRIPTION\n" +
             quoted("The notifications the agent sends.", 8) + "\n    ::= { " + identity + "Groups 2 }\n\n";
      groups += ", " + identity + "NotificationGroup";
    }
    out += identity + "Compliance MODULE-COMPLIANCE\n    STATUS      current\n    DESCRIPTION\n" +
           quoted("An agent that publishes every object of this module.", 8) +
           "\n    MODULE      -- this module\n        MANDATORY-GROUPS { " + groups + " }\n    ::= { " + identity +
           "Compliances 1 }\n\nEND\n";
    return out;
  }

  const MibModuleOptions& options;
  Oid moduleOid;
  std::pair<std::string, Oid> root;  // the SNMPv2-SMI node the module hangs from
  std::string identity;
  std::vector<Object> objects;
  std::map<Oid, std::string> nodes;  // the OBJECT IDENTIFIER levels and their names
  std::vector<Notification> notifications;
  Oid conformanceOid;
  std::set<std::string> imports;  // base types and textual conventions in use
  Names names;
};

std::vector<Published> publishedBy(const ParamManager& manager) {
  std::vector<Published> published;
  for (const auto& [key, param] : manager.getParams()) {
    const SNMPInfo* info = param != nullptr ? param->getSnmpInfo() : nullptr;
    if (info != nullptr && info->getEntry() != nullptr && info->getAccess() != NOACCESS)
      published.push_back({key, info->getEntry()});
  }
  return published;
}

std::vector<Published> publishedBy(const SNMPAgent& agent) {
  std::vector<Published> published;
  for (const auto& [key, entry] : agent.publishedEntries()) published.push_back({key, entry});
  return published;
}

bool generate(const std::vector<Published>& published, const MibModuleOptions& options, std::string& text,
              std::string& error) {
  try {
    text = Generator(options).run(published);
    return true;
  } catch (const MibError& e) {
    error = e.message;
    return false;
  }
}

bool writeFile(const std::string& path, const std::string& text, std::string& error) {
  if (Kvan::internal::replaceFile(path, text)) return true;
  error = "cannot write " + path + ": " + strerror(errno);
  return false;
}

}  // namespace

bool generateMibModule(const ParamManager& manager, const MibModuleOptions& options, std::string& text,
                       std::string& error) {
  return generate(publishedBy(manager), options, text, error);
}

bool generateMibModule(const SNMPAgent& agent, const MibModuleOptions& options, std::string& text, std::string& error) {
  return generate(publishedBy(agent), options, text, error);
}

bool writeMibModule(const std::string& path, const ParamManager& manager, const MibModuleOptions& options,
                    std::string& error) {
  std::string text;
  return generateMibModule(manager, options, text, error) && writeFile(path, text, error);
}

bool writeMibModule(const std::string& path, const SNMPAgent& agent, const MibModuleOptions& options,
                    std::string& error) {
  std::string text;
  return generateMibModule(agent, options, text, error) && writeFile(path, text, error);
}

}  // namespace Quorvel::Kvan::SNMP
