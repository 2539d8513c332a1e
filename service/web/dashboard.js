"use strict";
// The dashboard: reads the service's JSON, renders it, posts the few actions.
const $ = (id) => document.getElementById(id);
const el = (tag, props = {}, ...kids) => {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(props)) {
    if (k === "class") e.className = v;
    else if (k === "dataset") Object.assign(e.dataset, v);
    else if (k.startsWith("on")) e.addEventListener(k.slice(2), v);
    else e.setAttribute(k, v);
  }
  for (const kid of kids) if (kid !== null && kid !== undefined) e.append(kid);
  return e;
};

function pipeline(c) {
  try {
    const p = JSON.parse(c.pipeline || "{}");
    return p && typeof p === "object" ? p : {};
  } catch (_) {
    return {};
  }
}

function age(ts) {
  const t = Date.parse(ts || "");
  if (Number.isNaN(t)) return "";
  const s = Math.max(0, Math.floor((Date.now() - t) / 1000));
  if (s < 90) return s + "s";
  if (s < 5400) return Math.floor(s / 60) + "m";
  if (s >= 172800) return Math.floor(s / 86400) + "d";
  return Math.floor(s / 3600) + "h";
}

async function post(path, body) {
  const r = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(body),
  });
  if (!r.ok) throw new Error(path + " answered " + r.status);
  return r.json();
}

function card(c) {
  const p = pipeline(c);
  const status = c.status || "inbox";
  const quote = c.transcript || c.title || "silent capture";
  const chips = el("div", { class: "chips" },
    el("span", { class: "chip" }, c.url ? "WEB" : "APP"),
    c.type ? el("span", { class: "chip t-" + c.type }, c.type) : null,
    c.severity ? el("span", { class: "chip" }, c.severity) : null,
    status !== "inbox" ? el("span", { class: "chip" }, status) : null,
    el("span", { class: "chip" }, age(c.ts)));
  const act = (label, cls, body) =>
    el("button", { class: cls, type: "button", onclick: () => post("/api/captures/" + c.id, body).then(refresh, fail) }, label);
  const cands = Array.isArray(p.candidates) ? p.candidates.filter((x) => typeof x === "string") : [];
  const candList = cands.length && !(c.confidence >= 1)
    ? el("ul", { class: "cands" }, ...cands.map((path) =>
        el("li", {}, act("✓ " + path, "confirm", { element_path: path, confidence: 1 }))))
    : null;
  const hook = p.webhook && p.webhook.configured >= 1
    ? el("p", { class: "meta" }, Array.isArray(p.webhook.delivered) && p.webhook.delivered.length
        ? "sent to " + p.webhook.delivered.join(", ") : "Webhook configured but delivery failed")
    : null;
  return el("li", { class: "cap " + status, dataset: { id: c.id } },
    el("a", { href: "/annotated/" + c.id, target: "_blank", rel: "noopener" },
      el("img", { class: "thumb", src: "/thumb/" + c.id, alt: "screenshot" })),
    el("div", {},
      chips,
      el("p", { class: "quote" }, quote),
      el("p", { class: "meta" }, [c.app, c.title].filter(Boolean).join(" — ")),
      c.url ? el("p", { class: "meta" }, c.url) : null,
      c.element_path ? el("p", { class: "meta element" }, "element: " + c.element_path +
        (typeof c.confidence === "number" ? " (" + Math.round(c.confidence * 100) + "%)" : "")) : null,
      hook,
      candList,
      el("div", { class: "actions" },
        status === "done" ? act("Reopen", "reopen", { status: "inbox" }) : act("Mark done", "done", { status: "done" }),
        status === "discarded" ? act("Restore", "restore", { status: "inbox" }) : act("Discard", "discard", { status: "discarded" }))));
}

function fail(e) {
  $("status").textContent = "The capture service isn't responding. (" + e.message + ")";
}

async function refresh() {
  try {
    const [caps, sessions, crashes] = await Promise.all(
      ["/api/captures?limit=200", "/api/sessions", "/api/crash"].map((u) => fetch(u).then((r) => {
        if (!r.ok) throw new Error(u + " answered " + r.status);
        return r.json();
      })));
    const all = $("show-discarded").checked;
    const shown = caps.filter((c) => all || c.status !== "discarded");
    $("caps").replaceChildren(...shown.map(card));
    $("caps-empty").hidden = shown.length > 0;
    $("sessions").replaceChildren(...sessions.map((s) => el("li", {},
      el("a", { href: "/api/doc/" + s.id, target: "_blank", rel: "noopener" }, s.name),
      " ", s.ended_at == null ? el("span", { class: "open" }, "open") : null,
      el("div", { class: "meta" }, (s.count || 0) + " captures · " + (s.started_at || "")))));
    if (!sessions.length) $("sessions").append(el("li", { class: "empty" }, "No sessions yet."));
    $("crashes").replaceChildren(...crashes.slice(0, 10).map((c) => el("li", {},
      el("strong", {}, c.name), el("div", { class: "meta" }, c.received_at),
      el("pre", {}, (c.text || "").split("\n").slice(0, 6).join("\n")))));
    if (!crashes.length) $("crashes").append(el("li", { class: "empty" }, "No crash reports."));
    $("status").textContent = shown.length + " shown · updated " + new Date().toLocaleTimeString();
    document.body.dataset.ready = "1";
  } catch (e) {
    fail(e);
  }
}

$("show-discarded").addEventListener("change", refresh);
refresh();
setInterval(() => { if (!document.hidden) refresh(); }, 3000);
