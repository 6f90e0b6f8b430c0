// The areas of the page, one at a time, by the address behind the "#".

import { byId, setText, show } from "./dom.js";

const TAB_MARGIN = 24; // shows that there is more

const sections = [...document.querySelectorAll("section.view")];
const links = [...document.querySelectorAll(".rail a")];
const rail = document.querySelector(".rail");
const shown = new Map(); // name -> what to do when the area comes up

export const onShow = (name, work) => shown.set(name, work);

export const currentView = () => sections.find((section) => !section.hidden)?.dataset.view ?? "";

export function startViews() {
  addEventListener("hashchange", () => turnTo(fromAddress(), true));
  turnTo(fromAddress(), false);
  const watcher = new ResizeObserver(revealTab); // numbers beside the names come and go
  for (const element of [rail, rail.firstElementChild]) watcher.observe(element);
}

/// Turns to an area for something that will take the focus there itself.
export function go(name) {
  if (fromAddress() !== name) history.pushState(null, "", `#/${name}`);
  turnTo(name, false);
}

export function setCount(name, number, alarming = false) {
  const element = byId(`nav-${name}`);
  setText(element, number ? number.toLocaleString("en") : "");
  element.classList.toggle("bad", alarming);
}

function fromAddress() {
  const name = location.hash.replace(/^#\/?/, "");
  return sections.some((section) => section.dataset.view === name) ? name : "live";
}

/// On a narrow screen the areas stand in a row that is wider than the screen: moves it so that the current one is seen.
function revealTab() {
  const tab = rail.querySelector("[aria-current]").getBoundingClientRect();
  const seen = rail.getBoundingClientRect();
  if (tab.left < seen.left) rail.scrollLeft -= seen.left - tab.left + TAB_MARGIN;
  else if (tab.right > seen.right) rail.scrollLeft += tab.right - seen.right + TAB_MARGIN;
}

/// After a person's choice the heading takes the focus: a screen reader then reads on from there.
function turnTo(name, chosen) {
  for (const section of sections) show(section, section.dataset.view === name);
  for (const link of links) {
    if (link.getAttribute("href") === `#/${name}`) link.setAttribute("aria-current", "page");
    else link.removeAttribute("aria-current");
  }
  shown.get(name)?.();
  revealTab();
  if (!chosen) return;
  scrollTo(0, 0);
  document.querySelector(`section[data-view="${name}"] h2`).focus({ preventScroll: true });
}
