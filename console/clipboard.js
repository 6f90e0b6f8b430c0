// Copying a text; where the browser forbids it (pages over plain HTTP from another host), by hand.

import { byId } from "./dom.js";
import { say } from "./notices.js";

export async function toClipboard(text, what) {
  try {
    await navigator.clipboard.writeText(text);
    say(`${what} is in the clipboard.`);
  } catch {
    byId("copy-text").value = text;
    byId("copy-dialog").showModal();
    byId("copy-text").select();
  }
}
