// MIB modules for what the agent publishes. A network manager shows a
// device's objects by name, with their types, ranges and tables, once it has
// the device's MIB module; the registry already knows everything the module
// says, so the host generates it instead of writing one by hand: an SMIv2
// module with its MODULE-IDENTITY, the OBJECT IDENTIFIER levels down to the
// objects, one OBJECT-TYPE per scalar, the table, entry, SEQUENCE and columns
// of each table (index columns not-accessible, the RowStatus column as
// SNMPv2-TC's RowStatus), the NOTIFICATION-TYPEs the host names, and an
// OBJECT-GROUP, NOTIFICATION-GROUP and MODULE-COMPLIANCE that list every
// accessible object and notification. SYNTAX is the one the agent checks SET values
// against, widened by the value a table cell starts at when a SET would refuse
// it (the DESCRIPTION then says what a SET takes); a table whose rows take any
// number of index components has an IMPLIED OBJECT IDENTIFIER index.
//
// Thread safety: the functions only read the registry, the published objects
// and their table definitions, and take no lock. Call them once the registry
// is complete (after start-up's add() calls), from any thread, also while the
// agent runs.
#ifndef ZELTA_MIBGEN_H_
#define ZELTA_MIBGEN_H_

#include <map>
#include <string>
#include <vector>

#include "zelta/export.h"

namespace Quorvel::Kvan {
class ParamManager;

namespace SNMP {
class SNMPAgent;

// How the module names and describes one published object. A descriptor
// starts with a lower-case letter and holds letters and digits only, at most
// 64 of them.
struct MibObjectText {
  // Descriptor of a scalar; of a table, the stem of its names: "route" gives
  // routeTable, routeEntry, the SEQUENCE RouteEntry and, for columns left
  // unnamed, routeColumnN and routeRowStatus. "" = made from the key.
  std::string name;
  std::string description;                                 // DESCRIPTION; "" = one that names the key
  std::map<unsigned int, std::string> columnNames;         // a table's column descriptors by column number
  std::map<unsigned int, std::string> columnDescriptions;  // a table's column DESCRIPTIONs by column number
};

// One notification the agent sends, as a NOTIFICATION-TYPE; e.g. the change
// notification of SNMPAgent::Options::changeNotificationOid. It names no
// OBJECTS: a change notification carries whichever object changed.
struct MibNotificationText {
  std::string name;         // descriptor
  std::string oid;          // dotted, below the module's OID and apart from its objects (ideally ending in .0.N)
  std::string description;  // DESCRIPTION; "" = "Sent by the agent."
};

// The module as a whole. Fields are only ever added, each with a default, so
// set them by name.
struct MibModuleOptions {
  std::string moduleName;           // e.g. "ACME-ROUTER-MIB": an upper-case letter, then letters, digits, hyphens
  std::string oid;                  // dotted OID of the MODULE-IDENTITY; every published object lies below it
  std::string identityName;         // descriptor of the MODULE-IDENTITY; "" = from moduleName ("acmeRouterMIB")
  std::string revisionDate;         // "YYYY-MM-DD": LAST-UPDATED and the REVISION
  std::string revisionDescription;  // the REVISION's DESCRIPTION; "" = "Generated from the device's parameters."
  std::string organization;         // ORGANIZATION; "" = "Not given."
  std::string contactInfo;          // CONTACT-INFO; "" = "Not given."
  std::string description;          // the module's DESCRIPTION; "" = one that names the module
  std::string headerComment;        // written above the module as "--" lines; "" = none
  // Put in front of every descriptor made from a key: "demo" turns key
  // "hostname" into demoHostname. "" = none (a key must then start with a letter).
  std::string namePrefix;
  std::map<std::string, MibObjectText> objects;  // names and descriptions by key; keys not published are ignored
  // Descriptors of the OBJECT IDENTIFIER levels above the objects (and above
  // the module, up to the SNMPv2-SMI node it hangs from), by dotted OID.
  // Unnamed levels are named after their parent and arc: enterprises99999.
  std::map<std::string, std::string> nodeNames;
  // Arc below the module's OID that holds the conformance part (groups and
  // compliance). 0 = one past the highest arc the objects use.
  unsigned int conformanceArc = 0;
  // The notifications the agent sends: each a NOTIFICATION-TYPE, together a
  // NOTIFICATION-GROUP that the MODULE-COMPLIANCE makes mandatory too.
  std::vector<MibNotificationText> notifications;
};

// The module for every object `manager` publishes: each parameter with SNMP
// information and an access other than NOACCESS (an object whose access was
// set to NOACCESS at run time is left out). True with the module in `text`.
// False with `error` naming the object or option at fault and `text` as it
// was: an object outside the module's OID, a name that is no valid
// descriptor or is taken, a table without RowStatus column, a range that
// holds no value, a table whose rows take any number of index components but
// that has more than one index column, a module without objects.
ZELTA_EXPORT bool generateMibModule(const ParamManager& manager, const MibModuleOptions& options, std::string& text,
                                    std::string& error);
// The same for everything `agent` publishes: the manager's parameters and the
// entries added with addEntry().
ZELTA_EXPORT bool generateMibModule(const SNMPAgent& agent, const MibModuleOptions& options, std::string& text,
                                    std::string& error);

// generateMibModule, then the text into `path` (a temporary file in the same
// directory renamed over it). False with `error` when the module cannot be
// made or the file not written; `path` is then left as it was.
ZELTA_EXPORT bool writeMibModule(const std::string& path, const ParamManager& manager, const MibModuleOptions& options,
                                 std::string& error);
ZELTA_EXPORT bool writeMibModule(const std::string& path, const SNMPAgent& agent, const MibModuleOptions& options,
                                 std::string& error);

}  // namespace SNMP
}  // namespace Quorvel::Kvan

#endif  // ZELTA_MIBGEN_H_
