// A request as a line for the shell.

import { toClipboard } from "./clipboard.js";
import { write } from "./json.js";
import { token } from "./session.js";

const quote = (text) => `'${text.replaceAll("'", "'\\''")}'`;

/// The token itself stays out of it: the line reads it from the environment.
export function curlLine(method, url, body) {
  const words = ["curl", "--fail-with-body"];
  if (method !== "GET") words.push("-X", method);
  words.push(quote(new URL(url, location.href).href));
  if (token()) words.push("-H", '"Authorization: Bearer $VELMORA_TOKEN"');
  if (body !== undefined) words.push("-H", quote("Content-Type: application/json"), "--data-binary", quote(write(body)));
  return words.join(" ");
}

export const copyCurl = (method, url, body) => toClipboard(curlLine(method, url, body), "The curl command");
