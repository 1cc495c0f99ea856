#!/usr/bin/env node
// Calls the helper from JavaScript, through the session of its command-line client.
//
//   editor.mjs generate ENGINE PROMPT  generates text
//   editor.mjs cancel ENGINE PROMPT    starts a generation and cancels it
//
// The helper does not admit an interpreter, which anybody could give a program. It admits its client, and that carries
// the same messages: a line for each call, a line for each reply.

import { spawn } from "node:child_process";
import { randomUUID } from "node:crypto";
import { createInterface } from "node:readline";
import { setTimeout as pause } from "node:timers/promises";

const generationError = "com.brindlemoor.Tessaloom.generation.";

/** A call that failed. `kind` says why a generation failed; other errors have none. */
class HelperError extends Error {
  constructor(name, description) {
    super(description || name);
    this.name = name;
    this.kind = name.startsWith(generationError) ? name.slice(generationError.length) : undefined;
  }
}

/** One connection to the helper. The first call starts it. */
class Helper {
  #client = spawn("tessaloom-helperctl", ["session"], { stdio: ["pipe", "pipe", "inherit"] });
  #waiting = new Map();
  #lastCall = 0;
  #failure;

  constructor() {
    this.#client.stdin.on("error", () => {}); // Reported where the replies end.
    this.#client.on("error", (error) => this.#fail(error.message));
    createInterface({ input: this.#client.stdout })
      .on("line", (line) => this.#receive(line))
      .on("close", () => this.#fail("The helper could not be reached."));
  }

  call(method, request) {
    return new Promise((resolve, reject) => {
      if (this.#failure) return reject(this.#failure);
      this.#waiting.set(++this.#lastCall, { resolve, reject });
      this.#client.stdin.write(request ? `${method} ${JSON.stringify(request)}\n` : `${method}\n`);
    });
  }

  /** Further calls are not possible; those under way are still answered. */
  end() {
    this.#client.stdin.end();
  }

  #receive(line) {
    const [, number, outcome, rest] = line.match(/^(\d+) (ok|error) (.*)$/);
    const { resolve, reject } = this.#waiting.get(Number(number));
    this.#waiting.delete(Number(number));
    if (outcome === "ok") return resolve(JSON.parse(rest));
    const [name, ...description] = rest.split(" ");
    reject(new HelperError(name, description.join(" ")));
  }

  #fail(description) {
    this.#failure ??= new HelperError("unreachable", description);
    for (const { reject } of this.#waiting.values()) reject(this.#failure);
    this.#waiting.clear();
  }
}

const generationRequest = (engine, prompt) => ({
  requestID: randomUUID(),
  engine,
  shape: "freeText",
  instructions: "Be brief.",
  prompt,
  timeout: 180,
});

async function generate(helper, engine, prompt) {
  const result = await helper.call("GenerateText", generationRequest(engine, prompt));
  console.log(result.text);
}

/**
 * The answer to a cancelled generation is the generation's own: an error of the kind "cancelled". Until its engine has
 * been launched nothing can be stopped, so the cancellation is repeated.
 */
async function cancel(helper, engine, prompt) {
  const request = generationRequest(engine, prompt);
  let isAnswered = false;
  const generation = helper.call("GenerateText", request).finally(() => (isAnswered = true));
  generation.catch(() => {}); // Handled below.
  while (!isAnswered) {
    const { succeeded } = await helper.call("CancelGeneration", { requestID: request.requestID });
    if (succeeded) break;
    await pause(50);
  }
  try {
    await generation;
    console.log("The engine had finished before it was cancelled.");
  } catch (error) {
    if (error.kind !== "cancelled") throw error;
    console.log("Cancelled.");
  }
}

const helper = new Helper();
try {
  const [command, ...words] = process.argv.slice(2);
  if ((await helper.call("ProtocolVersion")) !== 1) {
    throw new HelperError("version", "This helper speaks another version of the protocol.");
  }
  if (command === "generate" && words.length === 2) await generate(helper, ...words);
  else if (command === "cancel" && words.length === 2) await cancel(helper, ...words);
  else throw new HelperError("usage", "editor.mjs generate|cancel");
} catch (error) {
  const advice = error.kind === "notAuthenticated" ? "Sign in to the engine first" : (error.kind ?? error.name);
  console.error(`${advice}: ${error.message}`);
  process.exitCode = 1;
} finally {
  helper.end();
}
