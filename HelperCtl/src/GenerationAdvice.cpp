#include "GenerationAdvice.h"

#include <string>

#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/GenerationOutputParser.h"
#include "HelperProtocol/GenerationTimeout.h"
#include "HelperProtocol/WireValues.h"

namespace tessaloom {
namespace {

std::string howToSignIn(GenerationEngineID engine) {
  return engine == GenerationEngineID::codex
             ? "Sign in once: run `codex login` in a terminal, then try again."
             : "Sign in once: run `claude` in a terminal and type /login, then try again.";
}

std::string adviceFor(GenerationFailureKind kind, GenerationEngineID engine) {
  switch (kind) {
    case GenerationFailureKind::binaryNotFound:
      return "Install " + std::string(executableName(engine)) +
             ", or see which file was rejected and why: tessaloom-helperctl doctor";
    case GenerationFailureKind::notAuthenticated:
      return howToSignIn(engine);
    case GenerationFailureKind::launchFailed:
      return "See what is wrong: tessaloom-helperctl doctor";
    case GenerationFailureKind::timedOut:
      return "Increase --timeout (up to " + std::to_string(GenerationTimeout::maximum) +
             "), or run `" + std::string(executableName(engine)) +
             "` in a terminal to see how it responds.";
    case GenerationFailureKind::nonZeroExit:
      return "Run `" + std::string(executableName(engine)) +
             "` in a terminal to see how it responds.";
    case GenerationFailureKind::malformedOutput:
      return "Try again; if the problem persists, update " + std::string(executableName(engine)) +
             ".";
    case GenerationFailureKind::engineRefused:
      return "Wait until one of them has finished, or cancel one: tessaloom-helperctl cancel UUID";
    case GenerationFailureKind::cancelled:
      return {};
  }
  return {};
}

}  // namespace

CallError explainGenerationError(CallError error, GenerationEngineID engine) {
  if (!error.kind) return error;
  const auto kind = caseNamed(*error.kind, allGenerationFailureKinds);
  if (!kind) return error;
  const bool isSilent = error.message.empty() || error.message == *error.kind;
  // That description says itself what to do.
  if (!error.message.ends_with(GenerationOutputParser::refusedOptionsAdvice)) {
    error.advice = adviceFor(*kind, engine);
  }
  if (*kind == GenerationFailureKind::cancelled && isSilent) {
    error.message = "The generation was cancelled.";
  } else if (*kind == GenerationFailureKind::nonZeroExit && isSilent) {
    // What an engine that is not signed in does: it fails, and its standard error is empty.
    error.message = std::string(executableName(engine)) + " failed without an error message.";
    error.advice = "Perhaps it is not signed in. " + howToSignIn(engine);
  } else if (isSilent) {
    error.message = std::string(executableName(engine)) + " failed: " + *error.kind + ".";
  }
  return error;
}

}  // namespace tessaloom
