// Writes the D-Bus interface as introspection data with documentation, for those who call it:
// bindings, documentation tools and people.

#include <cstdio>
#include <string>

#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"

namespace {

using namespace tessaloom;

std::string argument(const char* name, const char* type, const char* direction,
                     const std::string& meaning) {
  return std::string("      <arg name=\"") + name + "\" type=\"" + type + "\" direction=\"" +
         direction + "\">\n        <annotation name=\"org.freedesktop.DBus.DocString\" value=\"" +
         meaning + "\"/>\n      </arg>\n";
}

std::string element(const Method& method) {
  std::string text = std::string("    <method name=\"") + method.name + "\">\n";
  if (method.takesRequest()) {
    text += argument("request", "ay", "in", std::string("JSON: ") + method.request);
  }
  const bool isBody = std::string(method.result) == "ay";
  text += argument("reply", method.result, "out",
                   (isBody ? std::string("JSON: ") : std::string()) + method.reply);
  return text + "    </method>\n";
}

}  // namespace

int main() {
  std::string text =
      "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
      "  \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
      "<node>\n  <interface name=\"" +
      std::string(HelperConstants::interfaceName) + "\">\n";
  for (const Method& method : methods) text += element(method);
  text += "  </interface>\n</node>\n";
  return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
}
