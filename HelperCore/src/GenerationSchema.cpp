#include "HelperCore/GenerationSchema.h"

namespace tessaloom {
namespace {

constexpr std::string_view freeText =
    R"({"type":"object","properties":{)"
    R"("content":{"type":"string","description":"The requested text itself and nothing else — )"
    R"(no preamble, no explanation of what you did, no surrounding code fence, )"
    R"(no closing commentary"}},)"
    R"("required":["content"],"additionalProperties":false})";

constexpr std::string_view itemFields =
    R"({"type":"object","properties":{)"
    R"("itemDescription":{"type":"string","description":)"
    R"("One plain-text sentence describing what this item does — )"
    R"(no markdown, no headings, no quotes"},)"
    R"("tags":{"type":"array","items":{"type":"string"},"description":)"
    R"("A few short, lowercase topic tags"},)"
    R"("globs":{"type":"array","items":{"type":"string"},"description":)"
    R"("File globs this applies to, e.g. **/*.swift; empty if it applies broadly"},)"
    R"("alwaysApply":{"type":"boolean","description":)"
    R"("True only if it should apply to every request regardless of which files are in context"}},)"
    R"("required":["itemDescription","tags","globs","alwaysApply"],"additionalProperties":false})";

}  // namespace

std::string_view GenerationSchema::text(GenerationShape shape) {
  return shape == GenerationShape::itemFields ? itemFields : freeText;
}

}  // namespace tessaloom
