// Posting an event by hand.

import { path, post } from "./api.js";
import { copyCurl } from "./curl.js";
import { byId, h } from "./dom.js";
import { JsonEditor } from "./jsoneditor.js";
import { attempt } from "./notices.js";
import { go } from "./views.js";

export class PostForm {
  constructor(store) {
    this.store = store;
    this.data = new JsonEditor("post-data", "Data", "A JSON dictionary that goes with the posting; empty for none.");
    byId("post-form").onsubmit = (submit) => {
      submit.preventDefault();
      this.send();
    };
    byId("post-form").onkeydown = (key) => {
      if (key.key !== "Enter" || !(key.ctrlKey || key.metaKey)) return;
      key.preventDefault();
      this.send();
    };
    byId("post-curl").onclick = () => attempt(() => this.copy());
  }

  /// Fills the form for a person to look over and send. Without data the field keeps what it holds.
  prepare(name, data) {
    byId("post-name").value = name;
    if (data !== undefined) this.data.set(data);
    this.tell("");
    go("live");
    byId("post-name").focus();
    byId("post-form").scrollIntoView({ block: "nearest" });
  }

  /// {name, data}, or null after having said what is missing.
  read() {
    const name = byId("post-name").value;
    if (!name) {
      this.tell("Which event? Choose a name or type one.", "bad");
      byId("post-name").focus();
      return null;
    }
    const data = this.data.value();
    return data === null ? null : { name, data };
  }

  async copy() {
    const wanted = this.read();
    if (wanted) await copyCurl("POST", path("events", wanted.name), wanted.data);
  }

  async send() {
    const wanted = this.read();
    if (!wanted) return;
    const started = performance.now();
    try {
      await post(path("events", wanted.name), wanted.data);
      this.tell(`Posted “${wanted.name}” in ${Math.max(1, Math.round(performance.now() - started))} ms.`, "good");
    } catch (failure) {
      this.tell(failure.message, "bad");
      if (failure.status === 404) this.offerToCreate(wanted);
    }
  }

  offerToCreate({ name }) {
    const create = async () => {
      if (!(await attempt(() => post(path("events"), { event_name: name })))) return;
      this.store.readQueue();
      this.send();
    };
    byId("post-outcome").append(" ", h("button", { type: "button", class: "small", onclick: create }, "Create it and post"));
  }

  tell(text, kind = "") {
    byId("post-outcome").className = `outcome ${kind}`;
    byId("post-outcome").replaceChildren(text);
  }
}
