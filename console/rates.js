// How often each event was posted, second by second over the last minutes.

export const SPAN_S = 300;
const MOST_NAMES = 200; // beyond them, names go into one sum

class Series {
  counts = new Uint32Array(SPAN_S);
  newest = -Infinity; // second of the newest bucket

  add(second) {
    this.advance(second);
    if (second > this.newest - SPAN_S) this.counts[second % SPAN_S] += 1;
  }

  /// Clears the buckets of the seconds that have come since.
  advance(second) {
    if (second <= this.newest) return;
    const from = Math.max(this.newest + 1, second - SPAN_S + 1);
    for (let s = from; s <= second; s += 1) this.counts[s % SPAN_S] = 0;
    this.newest = second;
  }

  /// SPAN_S counts, oldest first, the last one being that of `second`.
  until(second) {
    this.advance(second);
    return Array.from({ length: SPAN_S }, (_, i) => this.counts[(second - SPAN_S + 1 + i + SPAN_S) % SPAN_S]);
  }
}

export class Rates {
  all = new Series();
  names = new Map();
  last = new Map(); // name -> milliseconds of its newest posting

  add({ name, second, ms }) {
    this.all.add(second);
    this.last.delete(name);
    this.last.set(name, ms);
    if (this.last.size > MOST_NAMES * 10) this.last.delete(this.last.keys().next().value);
    if (!this.names.has(name) && this.names.size >= MOST_NAMES) return;
    let series = this.names.get(name);
    if (!series) this.names.set(name, (series = new Series()));
    series.add(second);
  }

  /// [{name, counts, total}] of the busiest, and how many further names were seen.
  busiest(second, most) {
    const rows = [];
    for (const [name, series] of this.names) {
      const counts = series.until(second);
      const total = counts.reduce((sum, n) => sum + n, 0);
      if (total) rows.push({ name, counts, total });
      else this.names.delete(name);
    }
    rows.sort((a, b) => b.total - a.total || (a.name < b.name ? -1 : 1));
    return { rows: rows.slice(0, most), more: Math.max(0, rows.length - most) };
  }
}

/// The mean of the last whole seconds: steady enough to read, quick enough to follow.
function current(counts, seconds = 3) {
  const whole = counts.slice(-1 - seconds, -1);
  return whole.reduce((sum, n) => sum + n, 0) / seconds;
}

/// "2,004/s", "3.3/s", and what is rarer by the minute.
export function rateText(counts) {
  const rate = current(counts);
  if (rate < 1) return `${counts.slice(-61, -1).reduce((sum, n) => sum + n, 0)}/min`;
  return rate < 9.95 ? `${rate.toFixed(1)}/s` : `${Math.round(rate).toLocaleString("en")}/s`;
}
