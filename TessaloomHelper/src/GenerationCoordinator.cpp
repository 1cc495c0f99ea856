#include "TessaloomHelper/GenerationCoordinator.h"

#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>

#include "GenerationDirectory.h"
#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperCore/GenerationOutputParser.h"
#include "HelperCore/GenerationSchema.h"
#include "TLFoundation/DescriptorShortage.h"
#include "TLFoundation/DisplayString.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t diagnosticTail = 2'000;         // User-perceived characters.
constexpr std::int64_t generatedTextLimit = 100'000;  // Unicode scalars.
/// For a version probe without a private directory. Its sticky bit keeps others from what is there.
constexpr const char* sharedDirectory = "/tmp";
constexpr std::int64_t versionLimit = 64;  // Unicode scalars.

/// The file that holds the schema, for the engine that takes one. Without it the engine still runs.
std::optional<std::filesystem::path> writeSchema(const GenerationRequest& request,
                                                 const GenerationDirectory& directory,
                                                 const std::function<void()>& release) {
  if (request.engine() != GenerationEngineID::codex) return std::nullopt;
  auto written = withDescriptors(release, [&] {
    return directory.write("schema.json", GenerationSchema::text(request.shape()));
  });
  return written ? std::optional(*std::move(written)) : std::nullopt;
}

GenerationOutputParser::Result parseOutput(const RunResult& run, const GenerationRequest& request) {
  const auto engine = request.engine();
  if (run.exitStatus != 0) {
    return std::unexpected(GenerationOutputParser::classifyFailure(
        run.exitStatus, Unicode::lastCharacters(run.standardError, diagnosticTail), engine));
  }
  return engine == GenerationEngineID::codex
             ? GenerationOutputParser::parseCodex(run.standardOutput, request.shape(), engine)
             : GenerationOutputParser::parseClaude(run.standardOutput, request.shape(), engine);
}

}  // namespace

GenerationCoordinator::GenerationCoordinator(CLIRunner& runner,
                                             std::filesystem::path temporaryDirectory,
                                             GenerationLookups lookups)
    : runner_(runner),
      temporaryDirectory_(std::move(temporaryDirectory)),
      lookups_(std::move(lookups)) {}

// The user database is a file or a service, and not every module reports that it could not be
// opened for lack of a descriptor. A user who really is unknown is rare, so the retries cost
// little.
std::optional<CurrentUser> GenerationCoordinator::currentUser() const {
  constexpr std::chrono::milliseconds pauses[] = {0ms, 10ms, 40ms, 160ms};
  auto user = lookups_.currentUser();
  for (auto pause = std::begin(pauses); !user && pause != std::end(pauses); ++pause) {
    lookups_.releaseDescriptors();
    std::this_thread::sleep_for(*pause);
    user = lookups_.currentUser();
  }
  return user;
}

std::expected<GenerationResult, GenerationErrorPayload> GenerationCoordinator::generate(
    const GenerationRequest& request) const {
  const auto engine = request.engine();
  // The run registers after its launch, so requests that come together may all pass.
  if (runner_.inFlightCount() >= maximumConcurrent) {
    return std::unexpected(GenerationErrorPayload::withDetail(
        GenerationFailureKind::engineRefused, engine, "Too many generations are already running."));
  }
  const auto executable = lookups_.engine(engine, currentUser());
  if (!executable) return std::unexpected(executable.error());
  const auto user = currentUser();
  if (!user) return std::unexpected(unknownUserFailure(engine));

  const auto directory = withDescriptors(lookups_.releaseDescriptors, [&] {
    return GenerationDirectory::create(temporaryDirectory_, request.requestID());
  });
  if (!directory) {
    return std::unexpected(GenerationErrorPayload::withDetail(
        GenerationFailureKind::launchFailed, engine, errnoText(directory.error())));
  }
  const auto schemaFile = writeSchema(request, *directory, lookups_.releaseDescriptors);

  const auto start = Clock::now();
  const CLIInvocation invocation{
      .executable = *executable,
      .arguments = CLIInvocationBuilder::arguments(engine, request.shape(), schemaFile),
      .environment = CLIInvocationBuilder::environment(user->homeDirectory, user->loginName,
                                                       directory->path()),
      .workingDirectory = directory->path(),
      .standardInput = CLIInvocationBuilder::prompt(request.instructions(), request.prompt())};
  const auto run =
      runner_.run(invocation, request.requestID(), engine, request.timeout().duration());
  if (!run) return std::unexpected(run.error());

  auto parsed = parseOutput(*run, request);
  const auto end = Clock::now();  // Cleaning the text does not count.
  if (!parsed) return std::unexpected(std::move(parsed.error()));
  return GenerationResult{
      .requestID = request.requestID(),
      .engine = engine,
      .text = DisplayString::multiLine(parsed->text, generatedTextLimit),
      .fields = std::move(parsed->fields),
      .tokens = parsed->tokens,
      .durationMilliseconds =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count()};
}

bool GenerationCoordinator::cancel(const GenerationCancelRequest& request) const {
  return runner_.cancel(request.requestID);
}

EngineStatus GenerationCoordinator::engineStatus(const EngineStatusRequest& request) const {
  EngineStatus status{.engine = request.engine,
                      .binaryFound = false,
                      .authenticated = std::nullopt,
                      .version = std::nullopt};
  const auto executable = lookups_.engine(request.engine, currentUser());
  if (!executable) return status;
  status.binaryFound = true;

  Environment environment;
  std::expected<FileDescriptor, int> directory;
  if (const auto user = currentUser()) {
    // The engine may write there, so one that others can change is not used.
    directory = withDescriptors(lookups_.releaseDescriptors,
                                [&] { return openPrivateDirectory(temporaryDirectory_); });
    environment = CLIInvocationBuilder::environment(
        user->homeDirectory, user->loginName, directory ? temporaryDirectory_ : sharedDirectory);
  }
  const auto probe = CLIInvocationBuilder::versionProbe(*executable, std::move(environment));
  const auto run = runner_.run(probe, std::nullopt, request.engine, probeTimeLimit);
  if (run) {
    status.version = DisplayString::singleLine(Unicode::trimmed(run->standardOutput), versionLimit);
  }
  return status;
}

}  // namespace tessaloom
