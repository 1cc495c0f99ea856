// Writes the D-Bus interface as introspection data with documentation, for those who call it:
// bindings, documentation tools and people.

#include <cstdio>
#include <string>

#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"

namespace {

using namespace tessaloom;

std::string annotation(const char* name, const std::string& value) {
  return std::string("        <annotation name=\"") + name + "\" value=\"" + value + "\"/>\n";
}

/// An array of bytes is JSON. GLib's generator makes a C string of it, which ends with a NUL on the
/// bus, unless it is told not to.
std::string argument(const char* name, const std::string& type, const char* direction,
                     const std::string& meaning) {
  const bool isJSON = type == "ay";
  return std::string("      <arg name=\"") + name + "\" type=\"" + type + "\" direction=\"" +
         direction + "\">\n" +
         annotation("org.gtk.GDBus.DocString", (isJSON ? "JSON: " : "") + meaning) +
         (isJSON ? annotation("org.gtk.GDBus.C.ForceGVariant", "true") : "") + "      </arg>\n";
}

std::string element(const Method& method) {
  std::string text = std::string("    <method name=\"") + method.name + "\">\n";
  if (method.takesRequest()) text += argument("request", "ay", "in", method.request);
  text += argument("reply", method.result, "out", method.reply);
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
