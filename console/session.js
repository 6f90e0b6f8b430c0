// The access token: asked for once, kept for this tab only.

import { byId, setText } from "./dom.js";

const KEY = "velmora.token";
let asking = null;

export const token = () => sessionStorage.getItem(KEY) ?? "";

/// Resolves once the person has given a token. Any number of requests may wait for the same answer.
/// `refused` is the token that the server did not take ("" where none was sent).
export function askForToken(refused) {
  if (refused !== token()) return Promise.resolve(); // another request has asked meanwhile
  asking ??= new Promise((resolve) => {
    const dialog = byId("token-dialog");
    setText(byId("token-error"), refused ? "The server did not take this token." : "");
    dialog.addEventListener("cancel", keepOpen);
    byId("token-form").onsubmit = (submit) => {
      submit.preventDefault();
      sessionStorage.setItem(KEY, byId("token").value.trim());
      byId("token").value = "";
      dialog.removeEventListener("cancel", keepOpen);
      dialog.close();
      asking = null;
      resolve();
    };
    dialog.showModal();
    byId("token").focus();
  });
  return asking;
}

const keepOpen = (cancel) => cancel.preventDefault();

/// The token as the WebSocket's subprotocol carries it: base64url of its UTF-8 bytes, without padding.
export function tokenProtocol() {
  const bytes = new TextEncoder().encode(token());
  const text = btoa(String.fromCharCode(...bytes));
  return `bearer.${text.replaceAll("+", "-").replaceAll("/", "_").replace(/=+$/, "")}`;
}
