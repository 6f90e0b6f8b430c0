// A dictionary to look into, folded up until someone does.

import { h } from "./dom.js";
import { holdsData, pretty } from "./json.js";

/// Null where there is nothing in it.
export function dataDetails(label, data) {
  if (!holdsData(data)) return null;
  return h("details", { class: "data" }, h("summary", {}, label), h("pre", { class: "code" }, pretty(data.text)));
}
