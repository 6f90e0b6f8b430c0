// Which postings of the last while have been seen, so that the history adds what was missed and nothing twice.
//
// A posting has no number of its own. But the history keeps or drops all postings of one second together and in full, so
// counting equal ones per second tells exactly how many of each are missing.

const KEEP_S = 45; // the history reaches back 30 seconds

export class Ledger {
  seconds = new Map(); // second -> Map(hash -> count)

  note(second, text) {
    let counts = this.seconds.get(second);
    if (!counts) {
      this.seconds.set(second, (counts = new Map()));
      this.forget(second - KEEP_S);
    }
    const hash = hashOf(text);
    counts.set(hash, (counts.get(hash) ?? 0) + 1);
  }

  copy() {
    const copy = new Ledger();
    copy.seconds = new Map([...this.seconds].map(([second, counts]) => [second, new Map(counts)]));
    return copy;
  }

  /// Of `postings` ({second, text}, in order) those that were not noted.
  missing(postings) {
    const left = new Map();
    return postings.filter(({ second, text }) => {
      if (!left.has(second)) left.set(second, new Map(this.seconds.get(second)));
      const counts = left.get(second);
      const hash = hashOf(text);
      const seen = counts.get(hash) ?? 0;
      if (seen > 0) counts.set(hash, seen - 1);
      return seen === 0;
    });
  }

  forget(before) {
    for (const second of this.seconds.keys()) {
      if (second >= before) break; // in order of insertion, and so nearly of time
      this.seconds.delete(second);
    }
  }
}

/// 53 bits, so that two different postings of one second practically never meet. Keeping the texts themselves would
/// take tens of megabytes under load.
function hashOf(text) {
  let a = 0xdeadbeef;
  let b = 0x41c6ce57;
  for (let i = 0; i < text.length; i += 1) {
    const c = text.charCodeAt(i);
    a = Math.imul(a ^ c, 2654435761);
    b = Math.imul(b ^ c, 1597334677);
  }
  a = Math.imul(a ^ (a >>> 16), 2246822507) ^ Math.imul(b ^ (b >>> 13), 3266489909);
  b = Math.imul(b ^ (b >>> 16), 2246822507) ^ Math.imul(a ^ (a >>> 13), 3266489909);
  return 4294967296 * (b & 2097151) + (a >>> 0);
}
