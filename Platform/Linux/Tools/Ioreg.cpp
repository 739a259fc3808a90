// Stand-in for ioreg(8): the battery's registry entry as a property list.

#include <string>

#include <fmt/format.h>
#include <getopt.h>

#include "Platform/BatteryRegistry.hpp"
#include "Platform/Linux/Tools/ToolOutput.hpp"
#include "Platform/PropertyList.hpp"

namespace quenzel::platform {
namespace {

constexpr const char* help =
    "Usage: ioreg -r -a -n NAME\n"
    "       ioreg -r -a -c CLASS\n"
    "Shows the registry entries of that name or class, with -a as a property list. The battery, "
    "AppleSmartBattery,\n"
    "is the one entry that this system has.\n"
    "\n"
    "  -r    the entries themselves as roots (the only form that is offered)\n"
    "  -a    as a property list (the only form that is offered)\n"
    "  -h    this text\n";

constexpr const char* batteryName = "AppleSmartBattery";

int printEntry(const std::string& name) {
  const std::optional<PropertyDictionary> battery =
      name == batteryName ? makeBatteryRegistry()->batteryProperties() : std::nullopt;
  // As the original: no entry of that name is no output and no failure.
  return battery ? printed(encodePropertyList(PropertyValue::Array{*battery})) : EXIT_SUCCESS;
}

int run(int argc, char** argv) {
  static const option longOptions[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
  bool roots = false;
  bool propertyList = false;
  std::string name;
  ::opterr = 0;
  for (int choice; (choice = ::getopt_long(argc, argv, ":ran:c:h", longOptions, nullptr)) != -1;) {
    switch (choice) {
      case 'r':
        roots = true;
        break;
      case 'a':
        propertyList = true;
        break;
      case 'n':
      case 'c':
        name = optarg;
        break;
      case 'h':
        return printed(help);
      case ':':
        return failed(fmt::format("ioreg: option needs a value: {}", argv[optind - 1]));
      default:
        return failed(fmt::format("ioreg: unrecognized option: {}", refusedOption(argv)));
    }
  }
  if (optind < argc) return failed(fmt::format("ioreg: unrecognized argument: {}", argv[optind]));
  if (!roots || !propertyList || name.empty())
    return failed("ioreg: expected -r -a and -n or -c; see ioreg --help");
  return printEntry(name);
}

}  // namespace
}  // namespace quenzel::platform

int main(int argc, char** argv) {
  return quenzel::platform::toolMain("ioreg", [&] { return quenzel::platform::run(argc, argv); });
}
