// Updates the page while it is shown. Without this script, plain forms do everything except "Listen
// first".
"use strict";

const byId = (id) => document.getElementById(id);
const token = () => document.querySelector("input[name=token]")?.value || "";

// --- Requests ---------------------------------------------------------------------------------------

async function send(path, fields) {
  const body = new URLSearchParams(fields);
  body.set("token", token());
  const answer = await fetch(path, {
    method: "POST",
    headers: { Accept: "application/json" },
    body,
    redirect: "error",
  });
  const json = await answer.json().catch(() => ({}));
  if (answer.status === 401) {
    location.assign("/login");
  }
  if (!answer.ok) {
    throw new Error(json.error || `The device answers with ${answer.status}.`);
  }
  return json;
}

const reason = (error) =>
  error instanceof TypeError ? "The device does not answer. Nothing was sent." : error.message;

function tell(place, text, isRefusal) {
  place.classList.toggle("refusal", isRefusal);
  place.textContent = "";
  // A screen reader notices a new text only if the place was empty before.
  setTimeout(() => (place.textContent = text), 20);
}

// Runs a button's action; ignores the button until the action has ended.
async function whileBusy(button, action, place) {
  if (button.getAttribute("aria-disabled") === "true") {
    return;
  }
  button.setAttribute("aria-disabled", "true");
  try {
    const text = await action();
    if (text) {
      tell(place, text, false);
    }
  } catch (error) {
    tell(place, reason(error), true);
  }
  button.removeAttribute("aria-disabled");
}

// --- Forms that say something -----------------------------------------------------------------------

function textOf(form) {
  const sentence = form.querySelector(".sentence");
  if (!sentence) {
    return [...form.querySelectorAll("textarea")].map((field) => field.value).join(" ");
  }
  return [...sentence.children]
    .map((part) => {
      const again = part.dataset.blank && form.elements[part.dataset.blank];
      return part.tagName === "INPUT" ? part.value : again ? again.value : part.textContent;
    })
    .join("");
}

function about(seconds) {
  const whole = Math.max(1, Math.round(seconds));
  if (whole < 90) {
    return `${whole} second${whole === 1 ? "" : "s"}`;
  }
  return `${Math.round(whole / 60)} minutes`;
}

function estimate(form) {
  const source = form.querySelector("option:checked") || form;
  const words = textOf(form).split(/[\s,.:;!?]+/).filter(Boolean).length;
  const place = form.querySelector(".length");
  const loops = Number(source.dataset.loops);
  const heard = form.dataset.seconds;
  place.hidden = words === 0;
  place.textContent =
    (heard ? `Takes ${Number(heard).toFixed(1)} seconds` :
      `About ${about(words / Number(source.dataset.pace))}, an estimate`) +
    (loops > 1 ? `; said ${loops} times.` : ".");
}

function forgetPreview(form) {
  const audio = form.querySelector("audio");
  audio.pause();
  audio.removeAttribute("src");
  audio.hidden = true;
  delete form.dataset.seconds;
}

const pause = (milliseconds) => new Promise((done) => setTimeout(done, milliseconds));

async function listen(form) {
  forgetPreview(form);
  const { id } = await send("/preview", new FormData(form));
  const path = `/preview/${id}.wav`;
  let answer = await fetch(path);
  while (answer.status === 202) {
    await pause(150);
    answer = await fetch(path);
  }
  if (!answer.ok) {
    throw new Error("The voice cannot say this.");
  }
  const audio = form.querySelector("audio");
  audio.addEventListener(
    "loadedmetadata",
    () => {
      form.dataset.seconds = audio.duration;
      estimate(form);
    },
    { once: true }
  );
  audio.hidden = false;
  audio.src = path;
  await audio.play().catch(() => {});  // The browser may demand a press on the player itself.
  return "You hear a preview. Nothing is announced.";
}

async function say(form) {
  const { notice } = await send("/say", new FormData(form));
  forgetPreview(form);
  form.querySelectorAll("textarea, .sentence input").forEach((field) => (field.value = ""));
  estimate(form);
  form.querySelector("textarea, .sentence input").focus();
  return notice;
}

function prepare(form) {
  const place = form.querySelector(".answer");
  const button = form.querySelector(".listen");
  form.addEventListener("input", () => {
    forgetPreview(form);
    place.textContent = "";
    estimate(form);
  });
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    whileBusy(form.querySelector(".main"), () => say(form), place);
  });
  form.addEventListener("keydown", (event) => {
    if (event.key === "Enter" && event.ctrlKey) {
      form.requestSubmit();
    }
  });
  if (button) {
    button.hidden = false;
    button.addEventListener("click", () => {
      if (form.reportValidity()) {
        whileBusy(button, () => listen(form), place);
      }
    });
  }
  estimate(form);
}

// "Withdraw" and "Say again".
document.addEventListener("submit", (event) => {
  const button = event.submitter;
  if (!button || button.name !== "id") {
    return;
  }
  event.preventDefault();
  const path = new URL(event.target.action).pathname;
  whileBusy(button, async () => (await send(path, { id: button.value })).notice, byId("notice"));
});

// --- Live parts -------------------------------------------------------------------------------------

// Replaces a part, and returns the focus to the button that had it, or to the part's head.
function replace(place, html) {
  if (place.dataset.html === html) {
    return;
  }
  const focused = place.contains(document.activeElement) ? document.activeElement.id : "";
  place.innerHTML = place.dataset.html = html;
  if (focused) {
    (byId(focused) || byId("waiting-head")).focus();
  }
}

function takeRow({ id, html }) {
  const shown = document.querySelector(`[data-id="${id}"]`);
  const template = document.createElement("template");
  template.innerHTML = html;
  const row = template.content.firstChild;
  if (!shown) {
    byId("rows").prepend(row);
    byId("no-rows")?.remove();
  } else if (!shown.isEqualNode(row)) {
    const focused = shown.contains(document.activeElement) ? document.activeElement.id : "";
    shown.replaceWith(row);
    byId(focused)?.focus();
  }
}

function take(event) {
  const state = JSON.parse(event.data);
  for (const name of ["problems", "now", "waiting"]) {
    replace(byId(name), state[name]);
  }
  state.rows.forEach(takeRow);
}

// Asks for the state after the stream was lost, as the session may have ended.
async function lookAfterLoss() {
  const answer = await fetch("/state.json").catch(() => null);
  if (answer && (answer.status === 401 || answer.redirected)) {
    location.assign("/login");
  }
}

function watch() {
  const link = byId("link");
  let stream;
  let isLost = false;
  const open = () => {
    stream = new EventSource("/events");
    stream.addEventListener("open", () => {
      if (isLost) {
        tell(byId("notice"), "The connection to the device is back.", false);
      }
      isLost = false;
      link.className = "live";
      link.textContent = "Live";
    });
    stream.addEventListener("message", take);
    stream.addEventListener("error", () => {
      if (!isLost) {
        isLost = true;
        link.className = "lost";
        link.textContent = `Connection lost at ${new Date().toTimeString().slice(0, 8)}. Trying again.`;
      }
      stream.close();
      lookAfterLoss().then(() => setTimeout(open, 1000));
    });
  };
  open();
  addEventListener("pagehide", () => stream.close());
}

document.querySelectorAll("form.say").forEach(prepare);
if (byId("link")) {
  watch();
}
