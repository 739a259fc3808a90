#include "SharedModels/Presentation/AppleProcessDetector.hpp"

#include <algorithm>

#include "Base/Text.hpp"

namespace quenzel::AppleProcessDetector {
namespace {

constexpr std::string_view appleDomain = "com.apple.";

constexpr std::string_view nameTable[] = {"airportd",
                                          "analyticsd",
                                          "apfsd",
                                          "appleeventsd",
                                          "appstoreagent",
                                          "aborttransactiond",
                                          "appleaborttransactiond",
                                          "authd",
                                          "autofsd",
                                          "biomed",
                                          "biomesyncd",
                                          "bluetoothd",
                                          "cfprefsd",
                                          "cloudd",
                                          "configd",
                                          "contactsd",
                                          "contextstored",
                                          "coreaudiod",
                                          "corebrightnessd",
                                          "coreduetd",
                                          "corespeechd",
                                          "corespotlightd",
                                          "coreservicesd",
                                          "coresymbolicationd",
                                          "ctkd",
                                          "dasd",
                                          "deleted",
                                          "diagnosticd",
                                          "diskmanagementd",
                                          "diskarbitrationd",
                                          "distnoted",
                                          "dprivacyd",
                                          "extensionkitservice",
                                          "familycontrolsd",
                                          "filecoordinationd",
                                          "fileproviderd",
                                          "fseventsd",
                                          "ftp",
                                          "geod",
                                          "gpumemd",
                                          "hidd",
                                          "homed",
                                          "iconservicesagent",
                                          "imagent",
                                          "imautomatichistorydeletionagent",
                                          "ilookupassistant",
                                          "installd",
                                          "ioreportmemoryblame",
                                          "kernel_task",
                                          "kernelmanagerd",
                                          "keybagd",
                                          "knowledge-agent",
                                          "knowledgeconstructiond",
                                          "launchd",
                                          "locationd",
                                          "logd",
                                          "lsd",
                                          "mds",
                                          "mds_stores",
                                          "mdworker",
                                          "mdworker_shared",
                                          "mdworker shared",
                                          "mediaanalysisd",
                                          "mediaremoted",
                                          "mediaserverd",
                                          "mobileassetd",
                                          "mtlcompilerservice",
                                          "natural language service",
                                          "nearbyd",
                                          "nehelper",
                                          "nesessionmanager",
                                          "networkserviceproxy",
                                          "nfcd",
                                          "notifyd",
                                          "nsurlsessiond",
                                          "opendirectoryd",
                                          "ospredictiond",
                                          "pasted",
                                          "pboard",
                                          "pelofd",
                                          "photolibraryd",
                                          "powerd",
                                          "rapportd",
                                          "remindd",
                                          "remoted",
                                          "revisiond",
                                          "routined",
                                          "runningboardd",
                                          "sandboxd",
                                          "searchpartyd",
                                          "securityd",
                                          "seserviced",
                                          "sharingd",
                                          "siriknowledged",
                                          "smd",
                                          "softwareupdated",
                                          "spotlight",
                                          "storekitd",
                                          "suggestd",
                                          "symptomsd",
                                          "sysextd",
                                          "syslogd",
                                          "sysmond",
                                          "systemstats",
                                          "systemsoundserverd",
                                          "timed",
                                          "thermalmonitord",
                                          "translationd",
                                          "triald",
                                          "trustd",
                                          "usbd",
                                          "useractivityd",
                                          "usernoted",
                                          "warmd",
                                          "watchdogd",
                                          "weatherd",
                                          "wifid",
                                          "windowmanager",
                                          "windowserver",
                                          "xartstorageremoted",
                                          "xpcroleaccountd",
                                          "axvisualssupportagent",
                                          "axvisualsupportagent",
                                          "accessibilityvizsuport",
                                          "assistantd",
                                          "coreservicesuiagent",
                                          "dock",
                                          "finder",
                                          "notificationcenterui",
                                          "sharedfilelistd",
                                          "systemuiserver",
                                          "talagent",
                                          "universalcontrol",
                                          "userinputconditioning",
                                          "viewbridgeauxiliary",
                                          "calculatorwidget",
                                          "calendarwidgetextension",
                                          "chronod",
                                          "clockwidget",
                                          "extensionkit_service",
                                          "findmywidgetitems",
                                          "findmywidgetpeople",
                                          "homeenergywidgetsextension",
                                          "homewidget",
                                          "intelligencewidget",
                                          "newswidget",
                                          "photosrelivewidget",
                                          "podcastswidget",
                                          "reminderswidgetextension",
                                          "shortcutswidgetextension",
                                          "stockswidget",
                                          "tipswidget",
                                          "tipswidgetextension",
                                          "voicememossettingswidgetextension",
                                          "weatherwidget",
                                          "widgetkit_simulator",
                                          "worldclockwidget",
                                          "awdd",
                                          "commcenter",
                                          "identityservicesd",
                                          "mddiscoveryrestrictionsserviceworker",
                                          "networkd",
                                          "parsec",
                                          "parsecd",
                                          "relatived",
                                          "spindump",
                                          "socketfilterfw",
                                          "wirelessproxd",
                                          "coreauthd",
                                          "endpointsecurityd",
                                          "keychainprecache",
                                          "ocspd",
                                          "securityagent",
                                          "secinitd",
                                          "sectaskd",
                                          "bird",
                                          "callservicesd",
                                          "cameracaptureagent",
                                          "calaccessd",
                                          "containermanagerd",
                                          "icloudaccountd",
                                          "icloudnotificationagent",
                                          "photoanalysisd",
                                          "pkd",
                                          "swcd",
                                          "tccd",
                                          "aneservicesd",
                                          "userfs_agent"};
static_assert(std::size(nameTable) == 188);

// In any case. The domain and the prefixes hold no "k", the one ASCII letter that is the whole lower case of
// a character outside ASCII (U+212A, the Kelvin sign): so comparing ASCII letters does.
bool startsWith(std::string_view text, std::string_view start) {
  return equalsIgnoringASCIICase(text.substr(0, start.size()), start);
}

bool contains(std::string_view text, std::string_view part) {
  for (; text.size() >= part.size(); text.remove_prefix(1)) {
    if (startsWith(text, part)) return true;
  }
  return false;
}

bool isSystemName(std::string_view name) {
  std::string key = lowercased(name);
  std::replace(key.begin(), key.end(), ' ', '_');
  return systemProcessNames().contains(key);
}

}  // namespace

const std::unordered_set<std::string_view>& systemProcessNames() {
  static const std::unordered_set<std::string_view> names(std::begin(nameTable), std::end(nameTable));
  return names;
}

bool isAppleSystemProcess(std::string_view name, const std::optional<std::string>& bundleID,
                          std::string_view displayName) {
  if (bundleID && startsWith(*bundleID, appleDomain)) return true;
  // A leaf that begins with the domain is part of the name.
  if (contains(name, appleDomain) || startsWith(displayName, appleDomain)) return true;
  const auto holdsName = [&](std::string_view prefix) { return startsWith(name, prefix); };
  if (name.starts_with('/') && std::any_of(systemPathPrefixes.begin(), systemPathPrefixes.end(), holdsName))
    return true;
  return isSystemName(lastPathComponent(name)) || isSystemName(displayName);
}

}  // namespace quenzel::AppleProcessDetector
