// Types of velmora.mjs.

/** A posting as the feed, the history and handlers show it. */
export interface Posting {
  event_name: string;
  timestamp: string;
  post_data?: Record<string, unknown>;
  event_data: Record<string, unknown>;
}

export interface Message {
  /** EPOCH-NUMBER: an epoch is one run of the server, numbers count from 1. */
  id: string;
  posting: Posting;
  /** As it came. */
  text: string;
}

export interface Gap {
  /** The last posting before it. */
  after: string;
  /** Where the server stood when it was found. */
  id: string;
}

export interface ClientOptions {
  token?: string | (() => string);
  parse?: (text: string) => unknown;
  fetch?: typeof fetch;
  WebSocket?: unknown;
}

export interface FollowOptions {
  events?: string[];
  after?: string;
  onPosting?: ((message: Message) => void) | null;
  onGap?: ((gap: Gap) => void) | null;
  onOpen?: ((standing: Gap & { gap: boolean }) => void) | null;
  onState?: ((feed: Feed) => void) | null;
  prepare?: ((feed: Feed) => Promise<unknown>) | null;
}

export declare class VelmoraError extends Error {
  /** The HTTP status, 0 where there was no answer. */
  status: number;
  errors: { pointer?: string; parameter?: string; detail: string }[];
}

export declare class Client {
  constructor(address: string | URL, options?: ClientOptions);
  post(name: string, data?: Record<string, unknown>): Promise<string>;
  history(options?: { after?: string; events?: string[]; limit?: number }): Promise<{
    history: Posting[];
    last_id: string;
    gap?: boolean;
  }>;
  follow(options?: FollowOptions): Feed;
  request(method: string, path: string, body?: unknown): Promise<unknown>;
}

export declare class Feed implements AsyncIterable<Message> {
  readonly state: "new" | "connecting" | "open" | "waiting" | "full" | "closed";
  readonly retryAt: number;
  readonly failure: VelmoraError | null;
  lastId: string;
  close(): void;
  hurry(): void;
  [Symbol.asyncIterator](): AsyncIterator<Message>;
}
