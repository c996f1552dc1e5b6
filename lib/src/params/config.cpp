// Settings as a whole: the factory reset, and the export and import of a
// registry's settings as one text in the group-file syntax.
//
//   [system]
//   volume.0 = 0:2:42
//   [network]
//   routes.1 = 3:64:10.1.0.0 4:2:3 5:4:"uplink" <- table lines end with a blank
//   # end of configuration
//
// An import is read and checked in full before anything changes; the values
// are then set in one hold of the library lock.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>

#include "base/atomicfile.h"
#include "base/liblock.h"
#include "params/groupfile.h"
#include "values/valuecodec.h"
#include "zelta/logging.h"
#include "zelta/parammanager.h"

namespace Quorvel::Kvan {

namespace {

using groupfile::printed;
using groupfile::shown;

const char kEndLine[] = "# end of configuration";

// A value a reset or an import gives a parameter.
struct Assignment {
  Param* param;
  Variant value;
};

// The value a parameter was constructed with; constructed without one (an
// UNDEFINED value), the default of its type, as the constructor without a
// value gives. A table constructed without its definition (the host gave it
// one later) keeps the one it has.
Variant factoryValueOf(const Param& param) REQUIRES(libraryMutex()) {
  const Variant& factory = param.getFactoryValue();
  const Variant& held = param.getValue();
  const bool none = factory.getType() == VariantType::UNDEFINED;
  if (param.getType() == TABLE && held.getType() == VariantType::TABLEDEF &&
      (none || (factory.getType() == VariantType::TABLEDEF && factory.getTable().getDef() == nullptr)))
    return Variant(Table(held.getTable().getDef()));
  if (none)
    if (const ValueCodec* codec = ValueCodec::of(param.getType())) return codec->defaultValue();
  return factory;
}

// Stages the factory value of a parameter that is saved. One of another kind
// than the value held (a type without a default, constructed without a
// value) is not staged: the parameter keeps its value.
void stageFactoryValue(std::vector<Assignment>& values, Param* param) REQUIRES(libraryMutex()) {
  if (param->getSavePolicy() == NEVER_SAVE) return;
  Variant factory = factoryValueOf(*param);
  const VariantType held = param->getValue().getType();
  if (held != VariantType::UNDEFINED && factory.getType() != held) return;
  values.push_back(Assignment{param, std::move(factory)});
}

// Sets every value in one hold of the library lock, with the groups' new
// foreign lines, and runs the post-set hooks of the parameters of active
// groups; then saves each group once, outside the lock.
void apply(std::vector<Assignment>& values, std::vector<std::pair<ParamGroup*, std::string>>& foreign,
           const std::vector<ParamGroup*>& groups, int action) {
  {
    LibraryLockGuard lock(libraryMutex());
    for (Assignment& a : values) a.param->setValue(a.value);
    for (auto& [group, lines] : foreign) ParamGroup::Internal::setForeignLines_nolock(*group, std::move(lines));
    const ExtraInfo info({}, action, -1);
    for (Assignment& a : values)
      if (a.param->getGroup()->isActive()) Param::Internal::runPostSets_nolock(*a.param, &info);
  }
  for (ParamGroup* group : groups) group->save();
}

// Writes `text` into the FIFO or device at `path`. A reader that goes away
// gives EPIPE, not a SIGPIPE that would end the host.
bool writeInPlace(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) return false;
  sigset_t pipeSignal, before, pending;
  sigemptyset(&pipeSignal);
  sigaddset(&pipeSignal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
  const bool wasPending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      break;
    }
    done += static_cast<size_t>(n);
  }
  const int why = errno;
  if (done < text.size() && why == EPIPE && !wasPending) {
    const struct timespec none {};
    sigtimedwait(&pipeSignal, nullptr, &none);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  const bool ok = close(fd) == 0 && done == text.size();
  if (done < text.size()) errno = why;
  return ok;
}

std::string groupNames(const std::vector<ParamGroup*>& groups) {
  std::string names;
  for (ParamGroup* group : groups) names += (names.empty() ? "[" : " [") + group->getName() + "]";
  return names;
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Reads and checks an import, changing nothing: what it would set, per
// group, ends in `values` and `foreign`.
class Importer {
 public:
  Importer(const regex_t& linePattern, const regex_t& tripletPattern,
           const std::unordered_map<std::string, Param*>& registry, std::vector<ParamGroup*> knownGroups,
           std::vector<ParamGroup*> chosenGroups)
      : scanner(linePattern, tripletPattern),
        params(registry),
        known(std::move(knownGroups)),
        chosen(std::move(chosenGroups)) {
    for (const auto& [key, param] : registry) {
      if (param == nullptr) continue;
      for (const Param::FormerName& former : param->getFormerNames())
        if (registry.count(former.key) == 0) formerKeys.try_emplace(former.key, param, &former);
    }
  }

  bool read(const std::string& text, std::string& error);

  std::vector<Assignment> values;
  std::vector<std::pair<ParamGroup*, std::string>> foreign;
  std::vector<ParamGroup*> groups;  // the groups the import sets, in the order of their sections

 private:
  // What a section sets for one parameter; lines under the current key win
  // over those under former keys.
  struct Staged {
    bool current = false;
    Variant scalar;
    std::unique_ptr<Table> rows;
  };
  // A line under a former key, checked at the end of its section unless the
  // parameter had a line under its current key.
  struct FormerLine {
    size_t number;
    Param* param;
    const Param::FormerName* former;
    std::string_view line;
  };
  struct Section {
    ParamGroup* group = nullptr;
    std::string foreign;
    std::map<Param*, Staged> staged;
    std::vector<FormerLine> formerLines;
  };

  bool fail(std::string& error, size_t number, const std::string& why) {
    error = printed("line %zu: %s", number, why.c_str());
    return false;
  }
  bool header(std::string_view name, size_t number, std::string& error);
  bool entry(std::string_view line, size_t number, std::string& error);
  bool stage(Param* param, const Param::FormerName* former, std::string_view line, size_t number, std::string& error);
  bool closeSection(std::string& error);

  groupfile::LineScanner scanner;
  const std::unordered_map<std::string, Param*>& params;
  std::vector<ParamGroup*> known;
  std::vector<ParamGroup*> chosen;
  std::unordered_map<std::string, std::pair<Param*, const Param::FormerName*>> formerKeys;
  std::unique_ptr<Section> section;  // null outside a section and in one that is skipped
  bool inSection = false;
  std::vector<ParamGroup*> seen;
};

bool Importer::read(const std::string& text, std::string& error) {
  if (text.size() > ParamManager::kMaxConfigBytes) {
    error =
        printed("the text is %zu bytes, more than the %zu an import takes", text.size(), ParamManager::kMaxConfigBytes);
    return false;
  }
  // Control characters other than tabs and line ends appear in no group
  // file: such a text is no configuration.
  const auto binary = std::find_if(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\r' && c != '\n';
  });
  if (binary != text.end())
    return fail(error, static_cast<size_t>(std::count(text.begin(), binary, '\n')) + 1,
                "binary data, not a configuration text");
  // The end line tells a whole text from one cut short at a line's end.
  size_t lastStart = text.rfind('\n', text.empty() ? 0 : text.size() - 2);
  lastStart = lastStart == std::string::npos ? 0 : lastStart + 1;
  if (text.empty() || text.back() != '\n' ||
      trimmed(std::string_view(text).substr(lastStart, text.size() - 1 - lastStart)) != kEndLine)
    return fail(error, static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1,
                printed("the text ends without its last line '%s': it is cut short", kEndLine));
  size_t number = 0;
  for (size_t start = 0; start < lastStart;) {
    const size_t end = text.find('\n', start);
    const std::string_view line(text.data() + start, end - start);
    start = end + 1;
    ++number;
    const std::string_view content = trimmed(line);
    if (content.size() >= 2 && content.front() == '[' && content.back() == ']') {
      if (!header(content.substr(1, content.size() - 2), number, error)) return false;
    } else if (!inSection) {
      if (!content.empty() && content.front() != '#')
        return fail(error, number, "a line before the first group header \"[name]\"");
    } else if (section != nullptr && !entry(line, number, error)) {
      return false;
    }
  }
  return closeSection(error);
}

bool Importer::header(std::string_view name, size_t number, std::string& error) {
  if (!closeSection(error)) return false;
  ParamGroup* group = nullptr;
  for (ParamGroup* candidate : known) {
    if (candidate->getName() != name) continue;
    if (group != nullptr && group != candidate)
      return fail(error, number, printed("two groups are named '%s'", shown(name).c_str()));
    group = candidate;
  }
  if (group == nullptr) return fail(error, number, printed("no group is named '%s'", shown(name).c_str()));
  if (std::find(seen.begin(), seen.end(), group) != seen.end())
    return fail(error, number, printed("a second section for group [%s]", group->getName().c_str()));
  seen.push_back(group);
  inSection = true;
  if (std::find(chosen.begin(), chosen.end(), group) == chosen.end()) return true;  // skipped
  section = std::make_unique<Section>();
  section->group = group;
  return true;
}

bool Importer::entry(std::string_view line, size_t number, std::string& error) {
  ParamGroup& group = *section->group;
  const bool keeps = group.keepsForeignLines();
  const auto keep = [&] {
    section->foreign.append(line);
    section->foreign += '\n';
    return true;
  };
  const std::string_view content = trimmed(line);
  std::string_view key, value, stem;
  RowIdx index;
  if (content.empty() || content.front() == '#') return keeps ? keep() : true;
  if (!scanner.matchLine(line.data(), line.size(), key, value) || !scanner.splitKey(key, stem, index))
    return keeps ? keep() : fail(error, number, "not a \"key.index = column:type:value\" line");
  const std::string stemText(stem);
  auto current = params.find(stemText);
  Param* param = current != params.end() ? current->second : nullptr;
  const Param::FormerName* former = nullptr;
  if (param == nullptr) {
    auto formerKey = formerKeys.find(stemText);
    if (formerKey != formerKeys.end()) std::tie(param, former) = formerKey->second;
  }
  if (param == nullptr)
    return keeps ? keep()
                 : fail(error, number,
                        printed("no parameter of group [%s] has the key '%s'", group.getName().c_str(),
                                shown(stem).c_str()));
  if (param->getGroup() != &group)
    return fail(error, number,
                printed("%s belongs to group [%s], not [%s]", shown(key).c_str(), param->getGroup()->getName().c_str(),
                        group.getName().c_str()));
  if (former != nullptr) {
    section->formerLines.push_back(FormerLine{number, param, former, line});
    return true;
  }
  return stage(param, nullptr, line, number, error);
}

bool Importer::stage(Param* param, const Param::FormerName* former, std::string_view line, size_t number,
                     std::string& error) {
  std::string_view key, value, stem;
  RowIdx index;
  scanner.matchLine(line.data(), line.size(), key, value);
  scanner.splitKey(key, stem, index);
  // Values and validators are read and asked as a SET's are: under the lock.
  LibraryLockGuard lock(libraryMutex());
  Staged& staged = section->staged[param];
  if (former == nullptr && !staged.current) {
    // The first line under the current key: what former keys gave goes.
    staged.current = true;
    staged.scalar = Variant();
    staged.rows.reset();
  }
  std::string why;
  if (param->getType() != TABLE) {
    Variant checked;
    if (!groupfile::checkScalarText(scanner, *param, value, ACTION_IMPORTED, checked, why))
      return fail(error, number, printed("%s: %s", shown(key).c_str(), why.c_str()));
    staged.scalar = std::move(checked);
    return true;
  }
  TableRow row;
  if (!groupfile::checkRowText(scanner, *param, index, value, former != nullptr ? &former->columns : nullptr,
                               ACTION_IMPORTED, row, why))
    return fail(error, number, printed("%s: %s", shown(key).c_str(), why.c_str()));
  if (!staged.rows) staged.rows = std::make_unique<Table>(param->getValue().getTable().getDef());
  staged.rows->completeRow(row);
  bool created = false;
  staged.rows->openRow(index, created) = std::move(row);
  return true;
}

bool Importer::closeSection(std::string& error) {
  inSection = false;
  if (section == nullptr) return true;
  for (const FormerLine& formerLine : section->formerLines) {
    auto staged = section->staged.find(formerLine.param);
    if (staged != section->staged.end() && staged->second.current) continue;  // the current key wins
    if (!stage(formerLine.param, formerLine.former, formerLine.line, formerLine.number, error)) return false;
  }
  ParamGroup* group = section->group;
  LibraryLockGuard lock(libraryMutex());  // factory values of tables read the current definition
  for (Param* param : group->getParams()) {
    auto staged = section->staged.find(param);
    if (staged == section->staged.end()) {
      stageFactoryValue(values, param);
    } else if (param->getType() == TABLE) {
      Table empty(param->getValue().getTable().getDef());
      values.push_back(Assignment{param, Variant(staged->second.rows ? *staged->second.rows : empty)});
    } else {
      values.push_back(Assignment{param, std::move(staged->second.scalar)});
    }
  }
  if (group->keepsForeignLines()) foreign.emplace_back(group, std::move(section->foreign));
  groups.push_back(group);
  section.reset();
  return true;
}

}  // namespace

void ParamManager::factoryReset(const std::vector<ParamGroup*>& which) {
  const std::vector<ParamGroup*> targets = chosen(which);
  std::vector<Assignment> values;
  std::vector<std::pair<ParamGroup*, std::string>> foreign;
  {
    LibraryLockGuard lock(libraryMutex());
    for (ParamGroup* group : targets) {
      for (Param* param : group->getParams()) stageFactoryValue(values, param);
      foreign.emplace_back(group, std::string());
    }
  }
  Log["libzelta"].append(INFO, "ParamManager: factory settings restored for %s\n", groupNames(targets).c_str());
  apply(values, foreign, targets, ACTION_FACTORY_RESET);
}

std::string ParamManager::exportConfig(const std::vector<ParamGroup*>& which) const {
  std::vector<ParamGroup*> targets = chosen(which);
  std::sort(targets.begin(), targets.end(), [](const ParamGroup* a, const ParamGroup* b) {
    return a->getName() != b->getName() ? a->getName() < b->getName() : a->getFilePath() < b->getFilePath();
  });
  std::string text;
  // One hold of the lock: one moment's settings.
  LibraryLockGuard lock(libraryMutex());
  for (ParamGroup* group : targets) {
    text += '[';
    text += group->getName();
    text += "]\n";
    for (Param* param : group->getParams()) param->appendValueText(text);
    text += group->getForeignLines();
  }
  text += kEndLine;
  text += '\n';
  return text;
}

bool ParamManager::exportConfigFile(const std::string& path, std::string& error,
                                    const std::vector<ParamGroup*>& which) const {
  const std::string text = exportConfig(which);
  // A regular file (also one a link leads to) and a missing one are replaced
  // whole; a FIFO or a device, or a link to one, stays what it is and is
  // written into.
  struct stat info {};
  const bool inPlace = stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
  std::string target = path;
  if (!inPlace && lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
    std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
    if (real) target = real.get();
  }
  if (inPlace ? writeInPlace(path, text) : internal::replaceFile(target, text)) return true;
  error = printed("cannot write '%s': %s", path.c_str(), strerror(errno));
  return false;
}

bool ParamManager::importConfig(const std::string& text, std::string& error, const std::vector<ParamGroup*>& which) {
  std::vector<ParamGroup*> known(groups.begin(), groups.end());
  for (ParamGroup* group : which)
    if (groups.count(group) == 0) known.push_back(group);
  Importer importer(patterns->cfgRe, patterns->trpRe, params, known, chosen(which));
  if (!importer.read(text, error)) {
    Log["libzelta"].append(DEBUG, "ParamManager: import refused: %s\n", error.c_str());
    return false;
  }
  Log["libzelta"].append(INFO, "ParamManager: importing %s\n", groupNames(importer.groups).c_str());
  apply(importer.values, importer.foreign, importer.groups, ACTION_IMPORTED);
  return true;
}

bool ParamManager::importConfigFile(const std::string& path, std::string& error,
                                    const std::vector<ParamGroup*>& which) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    error = printed("cannot read '%s': %s", path.c_str(), fd < 0 ? strerror(errno) : "not a file");
    if (fd >= 0) close(fd);
    return false;
  }
  std::string text;
  bool read = false;
  if (static_cast<unsigned long long>(info.st_size) > kMaxConfigBytes) {
    error = printed("'%s' is %lld bytes, more than the %zu an import takes", path.c_str(),
                    static_cast<long long>(info.st_size), kMaxConfigBytes);
  } else {
    // Room for the file as it is and one byte more, grown while reads fill
    // it, up to one byte past the limit: a file that grew meanwhile is still
    // refused by the import.
    const size_t most = kMaxConfigBytes + 1;
    text.resize(static_cast<size_t>(info.st_size) + 1);
    size_t got = 0;
    read = true;
    for (ssize_t n = 1; n != 0;) {
      if (got == text.size()) {
        if (got == most) break;
        text.resize(std::min(most, 2 * got));
      }
      n = ::read(fd, &text[got], text.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        error = printed("cannot read '%s': %s", path.c_str(), strerror(errno));
        read = false;
        break;
      }
      got += static_cast<size_t>(n);
    }
    text.resize(got);
  }
  close(fd);
  return read && importConfig(text, error, which);
}

}  // namespace Quorvel::Kvan
