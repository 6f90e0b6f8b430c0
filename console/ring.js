// The last N of a stream, in constant memory.

export class Ring {
  #items = [];
  #next = 0;

  constructor(capacity) {
    this.capacity = capacity;
  }

  get length() {
    return this.#items.length;
  }

  push(item) {
    this.#items[this.#next] = item;
    this.#next = (this.#next + 1) % this.capacity;
  }

  /// Newest first.
  *newestFirst() {
    const size = this.#items.length;
    for (let i = 1; i <= size; i += 1) yield this.#items[(this.#next - i + this.capacity) % this.capacity];
  }
}
