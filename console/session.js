// The access token: asked for once, kept for this tab only.

import { byId, setText, show } from "./dom.js";

const KEY = "velmora.token";
let asking = null;

export function token() {
  const kept = sessionStorage.getItem(KEY) ?? "";
  return tokenFault(kept) ? "" : kept;
}

/// What keeps a text from being a token, or nothing. The server takes visible ASCII; browsers cannot even send all of the rest.
export function tokenFault(text) {
  if (text === "") return "Give the token.";
  const [odd] = text.match(/[^!-~]/u) ?? [];
  if (odd === undefined) return "";
  const what = /\s/.test(odd) ? "a blank" : `“${odd}”`;
  return `No token holds ${what}: it consists of letters, digits and signs of ASCII, without blanks.`;
}

/// Offers to sign out as long as there is a token. The page is loaded anew, so that nothing of what it showed stays.
export function offerSignOut() {
  show(byId("sign-out"), token() !== "");
  byId("sign-out").onclick = () => {
    sessionStorage.removeItem(KEY);
    location.reload();
  };
}

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
      const given = byId("token").value.trim();
      setText(byId("token-error"), tokenFault(given));
      if (tokenFault(given)) return;
      sessionStorage.setItem(KEY, given);
      offerSignOut();
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

/// The token as the WebSocket's subprotocol carries it: base64url, without padding.
export function tokenProtocol() {
  return `bearer.${btoa(token()).replaceAll("+", "-").replaceAll("/", "_").replace(/=+$/, "")}`;
}
