// How an editor in Swift uses the helper: over HelperClient, which its bridging header imports with
//   #import "HelperClient.h"

import Foundation

/// Asks an engine for text and shows it. Used on the main thread.
final class Assistant {
  private let helper = HelperClient()
  private var running: String?

  /// Once, after the editor starts: nothing can start an agent that was never registered.
  func start(show: @escaping (String) -> Void) {
    HelperClient.registerHelper() { error in
      self.helper.afterUpdate()
      guard let error else { return }
      DispatchQueue.main.async { show("The helper is not available: \(error.localizedDescription)") }
    }
  }

  /// Whether an engine can be used, and its version.
  func look(for engine: String, show: @escaping (String) -> Void) {
    helper.status(ofEngine: engine) { isFound, version in
      let text = version.isEmpty ? "unknown version" : version
      DispatchQueue.main.async { show(isFound ? text : "not installed") }
    }
  }

  func write(_ prompt: String, show: @escaping (String) -> Void) {
    let identifier = UUID().uuidString
    running = identifier
    helper.generateText(prompt, engine: "claudeCode", identifier: identifier) { text, failure, description in
      DispatchQueue.main.async {
        if self.running == identifier { self.running = nil }
        switch failure {
        case .none: show(text ?? "")
        case .cancelled: show("Cancelled.")
        case .signIn: show("Sign in to the engine first: \(description)")
        case .connection: show("The helper is not available: \(description)")
        default: show(description)
        }
      }
    }
  }

  /// Before its engine has been launched a generation cannot be stopped, so this repeats until it takes effect.
  func cancel() {
    if let identifier = running { cancel(identifier) }
  }

  private func cancel(_ identifier: String) {
    guard running == identifier else { return }
    helper.cancel(identifier) { isSignaled in
      guard !isSignaled else { return }
      DispatchQueue.main.asyncAfter(deadline: .now() + 0.1) { self.cancel(identifier) }
    }
  }

  /// The listing that allows the signal is a part of the call.
  func stop(process: Int32, show: @escaping (String) -> Void) {
    helper.stopProcess(process) { isSignaled, message in
      DispatchQueue.main.async { show(isSignaled ? "Stopped." : message) }
    }
  }
}
