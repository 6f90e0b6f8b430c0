// A dictionary to look into, folded up until someone does.

import { h } from "./dom.js";
import { pretty } from "./json.js";

/// Null where there is nothing in it.
export function dataDetails(label, data) {
  if (!data || Object.keys(data).length === 0) return null;
  return h("details", { class: "data" }, h("summary", {}, label), h("pre", { class: "code" }, pretty(data)));
}
