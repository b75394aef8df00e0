// Connected devices: a live table fed by the agent's event stream. Every text
// that comes from the LAN goes into the page through textContent or an
// attribute, never as markup.
"use strict";

const GONE_KEEP_MS = 10 * 60 * 1000;  // departed devices stay, greyed, this long
const RATES_EVERY_MS = 10 * 1000;     // rates and counters move without events
const COLUMNS = ["Name", "Vendor", "OS", "Address", "Interface", "Port / SSID", "Signal",
                 "Up / Down", "Online"];

const devices = new Map();  // mac -> {host, online, seenAt, leftAt}
const $ = (id) => document.getElementById(id);

function el(tag, text, className) {
  const node = document.createElement(tag);
  if (text !== undefined && text !== null) node.textContent = String(text);
  if (className) node.className = className;
  return node;
}

function bestName(host) {
  return host.names && host.names.length ? host.names[0] : null;
}

function rate(units) {  // the daemon's unit: 1024 bit/s
  return units < 1024 ? `${units} Kib/s` : `${(units / 1024).toFixed(1)} Mib/s`;
}

function duration(seconds) {
  seconds = Math.max(0, Math.floor(seconds));
  const d = Math.floor(seconds / 86400), h = Math.floor(seconds / 3600) % 24;
  const m = Math.floor(seconds / 60) % 60, s = seconds % 60;
  const hms = [h, m, s].map((n) => String(n).padStart(2, "0")).join(":");
  return d ? `${d}d ${hms}` : hms;
}

function wireless(host) { return host.connectionType === 1 || host.isWifi === 1; }

function portText(host) {
  if (wireless(host)) return host.ssidName || (host.port ? `SSID${host.port}` : "–");
  return host.port ? `LAN${host.port}` : "–";
}

function cells(entry) {
  const host = entry.host, name = bestName(host), now = Date.now();
  const online = entry.online ? host.onLineTime + (now - entry.seenAt) / 1000 : null;
  const iface = host.kernelIfName && host.kernelIfName !== host.ifName
    ? `${host.ifName} (${host.kernelIfName})` : host.ifName;
  return [
    [name ? name.name : host.mac, name ? `${name.source} · ${host.mac}` : ""],
    [host.vendor || "–", host.randomMac ? "random MAC" : ""],
    [host.osFamily || "–", ""],
    [host.ip && host.ip !== "0.0.0.0" ? host.ip : "–", host.ipv6 && host.ipv6 !== "::" ? host.ipv6 : ""],
    [iface || "–", ""],
    [portText(host), ""],
    [wireless(host) && host.rssi ? `${host.rssi} dBm` : "–", ""],
    [`↑ ${rate(host.upRate)}`, `↓ ${rate(host.downRate)}`],
    [online === null ? "left " + new Date(entry.leftAt).toLocaleTimeString() : duration(online), ""],
  ];
}

function row(mac, entry) {
  const tr = document.createElement("tr");
  tr.dataset.mac = mac;
  if (!entry.online) tr.className = "gone";
  cells(entry).forEach(([main, sub], i) => {
    const td = el("td", main);
    if (i > 0) td.dataset.label = COLUMNS[i];
    if (sub) td.appendChild(el("span", sub, "sub"));
    tr.appendChild(td);
  });
  return tr;
}

function matches(entry, query) {
  if (!query) return true;
  const h = entry.host;
  const words = [h.mac, h.ip, h.ipv6, h.vendor, h.osFamily, h.ifName, h.kernelIfName, h.ssidName,
                 ...(h.names || []).map((n) => n.name)];
  return words.some((w) => w && String(w).toLowerCase().includes(query));
}

function sortKey(entry) {
  const name = bestName(entry.host);
  return `${entry.online ? 0 : 1}${(name ? name.name : "~" + entry.host.mac).toLowerCase()}`;
}

function render() {
  const now = Date.now(), query = $("filter").value.trim().toLowerCase();
  for (const [mac, entry] of devices)
    if (!entry.online && now - entry.leftAt > GONE_KEEP_MS) devices.delete(mac);
  const shown = [...devices].filter(([, e]) => matches(e, query))
    .sort(([, a], [, b]) => sortKey(a).localeCompare(sortKey(b)));
  $("hosts").tBodies[0].replaceChildren(...shown.map(([mac, e]) => row(mac, e)));
  const online = [...devices.values()].filter((e) => e.online).length;
  $("empty").hidden = online > 0;
  document.title = `Connected devices (${online})`;
}

function arrive(host) {
  devices.set(host.mac, { host, online: true, seenAt: Date.now(), leftAt: 0 });
}

function leave(host) {
  devices.set(host.mac, { host, online: false, seenAt: Date.now(), leftAt: Date.now() });
}

// A snapshot is the whole picture: who is missing from it has left.
function applySnapshot(hosts) {
  const present = new Set(hosts.map((h) => h.mac));
  for (const entry of devices.values())
    if (entry.online && !present.has(entry.host.mac)) leave(entry.host);
  hosts.forEach(arrive);
}

function onMessage(event) {
  let message;
  try { message = JSON.parse(event.data); } catch (e) { return; }
  if (message.type === "snapshot") applySnapshot(message.hosts || []);
  else if (message.type === "event" && message.host)
    (message.event === "left" ? leave : arrive)(message.host);
  render();
}

function setStatus(text, live) {
  $("status").textContent = text;
  $("status").classList.toggle("live", live);
}

function connect() {
  const stream = new EventSource("/api/events");  // reconnects with Last-Event-ID
  stream.onmessage = onMessage;
  stream.onopen = () => setStatus("live", true);
  stream.onerror = () => setStatus("reconnecting…", false);
}

// Rates, counters and online time of the hosts already shown; presence comes from events.
async function refreshRates() {
  if (document.hidden) return;
  try {
    const snapshot = await (await fetch("/api/hosts", { cache: "no-store" })).json();
    for (const host of snapshot.hosts || []) {
      const entry = devices.get(host.mac);
      if (entry && entry.online) Object.assign(entry, { host, seenAt: Date.now() });
    }
  } catch (e) { /* the stream's status says enough */ }
}

function listItem(list, text, sub) {
  const li = el("li", text);
  if (sub) li.appendChild(el("span", sub, "sub"));
  list.appendChild(li);
  return li;
}

async function showDetail(mac) {
  const panel = $("detail");
  $("detail-title").textContent = mac;
  $("detail-facts").textContent = "loading…";
  ["detail-names", "detail-links", "detail-sessions"].forEach((id) => $(id).replaceChildren());
  panel.hidden = false;
  let detail;
  try {
    const reply = await fetch("/api/history/" + encodeURIComponent(mac), { cache: "no-store" });
    if (!reply.ok) throw new Error(await reply.text());
    detail = await reply.json();
  } catch (e) {
    $("detail-facts").textContent = "no history: " + e.message;
    return;
  }
  const name = detail.names.length ? detail.names[0].name : mac;
  $("detail-title").textContent = name;
  $("detail-facts").textContent = [mac, detail.vendor, detail.osFamily,
    `first seen ${new Date(detail.firstSeen).toLocaleString()}`,
    detail.online ? "online" : `last seen ${new Date(detail.lastSeen).toLocaleString()}`]
    .filter(Boolean).join(" · ");
  detail.names.forEach((n) => listItem($("detail-names"), n.name, n.source));
  if (!detail.names.length) listItem($("detail-names"), "none");
  detail.linkedMacs.forEach((m) => {
    const li = listItem($("detail-links"), "");
    const link = el("a", m);
    link.href = "#";
    link.addEventListener("click", (e) => { e.preventDefault(); showDetail(m); });
    li.appendChild(link);
  });
  if (!detail.linkedMacs.length) listItem($("detail-links"), "none");
  detail.sessions.forEach((s) => listItem($("detail-sessions"),
    `${new Date(s.from).toLocaleString()} – ${s.until ? new Date(s.until).toLocaleString() : "now"}`));
  if (!detail.sessions.length) listItem($("detail-sessions"), "none yet");
}

function closeDetail() { $("detail").hidden = true; }

document.addEventListener("DOMContentLoaded", () => {
  $("filter").addEventListener("input", render);
  // On the body, not the rows: rows are rebuilt every second, between a press and its release.
  $("hosts").tBodies[0].addEventListener("click", (e) => {
    const tr = e.target.closest("tr[data-mac]");
    if (tr) showDetail(tr.dataset.mac);
  });
  $("close").addEventListener("click", closeDetail);
  $("detail").addEventListener("click", (e) => { if (e.target === $("detail")) closeDetail(); });
  document.addEventListener("keydown", (e) => { if (e.key === "Escape") closeDetail(); });
  connect();
  setInterval(render, 1000);
  setInterval(refreshRates, RATES_EVERY_MS);
});
