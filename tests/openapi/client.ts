// Calls through a client whose types are made from the description of the REST interface. Half of the test is that
// this compiles: what the server takes can be written, and what it always answers can be read without asking.

import createClient, { type Client } from "openapi-fetch";
import type { components, paths } from "./api.js";

type Schemas = components["schemas"];
type Api = Client<paths>;

export const connect = (baseUrl: string): Api => createClient<paths>({ baseUrl });

function there<T>(answer: { data?: T; error?: unknown; response: Response }): T {
  if (answer.data === undefined) throw new Error(`${answer.response.url}: ${JSON.stringify(answer.error)}`);
  return answer.data;
}

export async function eventsAndListeners(api: Api) {
  const params = { path: { event_name: "a/b é" } };
  const event = there(await api.POST("/api/v1/events", {
    body: { event_name: "a/b é", event_data: { team: "storage", nested: { list: [1, "x", null, true] } } },
  }));
  const created = there(await api.POST("/api/v1/events/{event_name}/listeners", {
    params, body: { callback: "/healthz", listener_data: { priority: 1 } },
  }));
  const listener = there(await api.GET("/api/v1/events/{event_name}/listeners/{listener_id}", {
    params: { path: { ...params.path, listener_id: created.id } },
  }));
  const posted: true = there(await api.POST("/api/v1/events/{event_name}", { params, body: { any: ["thing"] } })).posted;
  there(await api.POST("/api/v1/events/{event_name}", { params }));
  const { history } = there(await api.GET("/api/v1/history", { params: { query: { event_name: ["a/b é"], limit: 2 } } }));
  const { event_list } = there(await api.GET("/api/v1/events"));
  await api.DELETE("/api/v1/events/{event_name}", { params });
  return {
    event: [event.event_name, event.event_data?.["team"], event.listener_list.length],
    listener: [listener.id === created.id, listener.callback, listener.listener_data?.["priority"]],
    posted,
    history: history.map((posting) => [posting.event_name, posting.post_data?.["any"], posting.event_data["team"]]),
    listed: event_list.flatMap((entry) => entry.listener_list.map((each) => each.callback.toUpperCase())),
  };
}

export async function timersAndWatches(api: Api, path: string) {
  const bodies: Schemas["NewTimer"][] = [
    { event_name: "tick", interval_sec: 60 },
    { event_name: "tick", interval_sec: "600", timer_data: { k: [1] } },
    { event_name: "tick", start_time: "2099-01-31T12:00:00+00:00" },
  ];
  for (const body of bodies) {
    const { id } = there(await api.POST("/api/v1/timers", { body }));
    there(await api.GET("/api/v1/timers/{timer_id}", { params: { path: { timer_id: id } } }));
  }
  const { timer_list } = there(await api.GET("/api/v1/timers"));
  const { warnings } = there(await api.POST("/api/v1/watches", {
    body: { path, event_name: "tick", watch_data: { k: { deep: 1 } } },
  }));
  const { watch_list } = there(await api.GET("/api/v1/watches", { params: { query: { path } } }));
  await api.DELETE("/api/v1/watches", { params: { query: { path } } });
  await api.DELETE("/api/v1/timers");
  return {
    timers: timer_list.map((timer) => timer.interval_sec?.length ?? timer.start_time?.slice(0, 4)),
    warnings: warnings.length,
    watches: watch_list.map((watch) => [watch.path, watch.once, watch.watch_data?.["k"]]),
  };
}

/// A document that the server has answered is one that it takes.
export async function document(api: Api) {
  there(await api.POST("/api/v1/queue", {
    body: { event_list: [{ event_name: "d", event_data: { k: 1 }, listener_list: [{ callback: "https://example.org/" }] }] },
  }));
  const state = there(await api.GET("/api/v1/queue"));
  const again = there(await api.POST("/api/v1/queue", { body: state }));
  const set = there(await api.PATCH("/api/v1/config", { body: { max_watches: 4096 } }));
  await api.DELETE("/api/v1/events");
  return [state.event_list.length, again.event_list.length, state.max_listeners + set.max_watches, typeof set.note];
}

export async function operations(api: Api) {
  const health = there(await api.GET("/healthz"));
  const ready = there(await api.GET("/readyz"));
  const metrics = there(await api.GET("/metrics", { parseAs: "text" }));
  const { deliveries } = there(await api.GET("/api/v1/deliveries", { params: { query: { outcome: "ok", limit: 5 } } }));
  const { error } = await api.POST("/api/v1/events", { body: { event_name: "" } });
  return {
    health: [health.status, health.uptime_sec.toFixed().length > 0],
    ready: [ready.ready, ready.checks.worker.ok, ready.checks.state_file.detail.length > 0],
    metrics: metrics.startsWith("# HELP"),
    deliveries: deliveries.every((delivery) => delivery.outcome === "ok" && !delivery.slow && delivery.duration_ms >= 0),
    problem: [error?.status, error?.errors?.[0]?.pointer],
  };
}

/// Never called: what the server refuses must not compile, and what it may leave out must be asked for.
export async function mistakes(api: Api, state: Schemas["QueueState"], posting: Schemas["Posting"]) {
  const params = { path: { event_name: "e" } };
  // @ts-expect-error: no such path
  await api.GET("/api/v1/event");
  // @ts-expect-error: no such method on it
  await api.PUT("/api/v1/events", {});
  // @ts-expect-error: the name is missing
  await api.POST("/api/v1/events", { body: { event_data: {} } });
  // @ts-expect-error: data is an object
  await api.POST("/api/v1/events", { body: { event_name: "e", event_data: "text" } });
  // @ts-expect-error: a slip of the hand
  ({ event_name: "e", event_dat: {} }) satisfies Schemas["NewEvent"];
  // @ts-expect-error: no object
  await api.POST("/api/v1/events/{event_name}", { params, body: [1] });
  // @ts-expect-error: the path's name is missing
  await api.GET("/api/v1/events/{event_name}");
  // @ts-expect-error: a listener without a callback
  await api.POST("/api/v1/events/{event_name}/listeners", { params, body: { listener_data: {} } });
  // @ts-expect-error: a timer without any time
  await api.POST("/api/v1/timers", { body: { event_name: "e" } });
  // @ts-expect-error: an interval that is no number
  await api.POST("/api/v1/timers", { body: { event_name: "e", interval_sec: true } });
  // @ts-expect-error: a watch without a path
  await api.POST("/api/v1/watches", { body: { event_name: "e" } });
  // @ts-expect-error: "once" is no text
  await api.POST("/api/v1/watches", { body: { event_name: "e", path: "/", once: "yes" } });
  // @ts-expect-error: a member that no document has
  ({ events: [] }) satisfies Schemas["QueueDocument"];
  // @ts-expect-error: a limit is a number
  await api.PATCH("/api/v1/config", { body: { max_listeners: "5" } });
  // @ts-expect-error: no such outcome
  await api.GET("/api/v1/deliveries", { params: { query: { outcome: "odd" } } });
  // @ts-expect-error: no such parameter
  await api.GET("/api/v1/history", { params: { query: { limt: 1 } } });
  // @ts-expect-error: absent where it is empty
  state.event_list[0]!.event_data["k"];
  // @ts-expect-error: absent where the poster gave nothing
  posting.post_data["k"];
  // @ts-expect-error: one that fires once has none
  state.timer_list[0]!.interval_sec.length;
}
