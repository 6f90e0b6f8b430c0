// A table of what is posted, as it is posted: one row for each event. The page must come from where the server is
// reached, as behind the proxy in nginx.conf, since the server takes no calls of other sites' pages.

// Takes one message of the feed into `rows`, a map of event name to its row.
export function take(rows, text) {
  const posting = JSON.parse(text);
  const row = rows.get(posting.event_name) ?? { count: 0 };
  rows.set(posting.event_name, {
    count: row.count + 1,
    last: posting.timestamp,
    data: JSON.stringify(posting.post_data ?? {}),
  });
  return rows;
}

// The rows as they are shown: the busiest first.
export function inOrder(rows) {
  return [...rows].sort(([a, one], [b, other]) => other.count - one.count || (a < b ? -1 : 1));
}

function show(rows, table) {
  table.replaceChildren(...inOrder(rows).map(([name, row]) => {
    const line = document.createElement("tr");
    for (const text of [name, row.count, row.last, row.data]) line.insertCell().textContent = text;
    return line;
  }));
}

function follow(rows) {
  const address = new URL("/api/v1/feed", location.href);
  address.protocol = address.protocol.replace("http", "ws");
  const state = document.getElementById("state");
  const feed = new WebSocket(address);
  feed.onopen = () => { state.textContent = "connected"; };
  feed.onmessage = (message) => show(take(rows, message.data), document.getElementById("events"));
  feed.onclose = () => {
    state.textContent = "not connected";
    setTimeout(() => follow(rows), 2000);
  };
}

if (globalThis.document) follow(new Map());
