#include "server/novaServer.h"

namespace vestrel {

// Everything from outside is inserted as text, never as markup.
const char* const ServerPage = R"page(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>Vestrel</title>
<style>
body { font: 16px sans-serif; margin: 2em auto; max-width: 60em; padding: 0 1em; }
#drop { border: 2px dashed gray; border-radius: 8px; padding: 2em; text-align: center; }
#drop.over { background: #def; }
table { border-collapse: collapse; margin-top: 1em; width: 100%; }
td, th { border-bottom: 1px solid #ccc; padding: 0.3em; text-align: left; overflow-wrap: anywhere; }
</style>
</head>
<body>
<h1>Vestrel</h1>
<div id="drop"><label>Drop pictures here, or choose them:
<input type="file" id="files" multiple></label><p id="message" role="status"></p></div>
<table>
<thead><tr><th>Job</th><th>Picture</th><th>State</th><th>Centre (J2000)</th><th>Scale</th><th>Files</th></tr></thead>
<tbody id="jobs"></tbody>
</table>
<script>
"use strict";
const say = text => document.getElementById("message").textContent = text;
async function post(path, fields, file) {
  const form = new FormData();
  form.append("request-json", JSON.stringify(fields));
  if (file) form.append("file", file, file.name);
  const reply = await (await fetch(path, {method: "POST", body: form})).json();
  if (reply.status !== "success") throw new Error(reply.errormessage);
  return reply;
}
async function upload(files) {
  const key = new URLSearchParams(location.search).get("key") || "page";
  try {
    const session = (await post("/api/login", {apikey: key})).session;
    for (const file of files) {
      say("Sending " + file.name);
      const reply = await post("/api/upload", {session}, file);
      say(file.name + " is job " + reply.subid);
    }
  } catch (error) {
    say("Not taken: " + error.message);
  }
  show();
}
function link(cell, text, target) {
  const anchor = document.createElement("a");
  anchor.textContent = text;
  anchor.href = target;
  cell.append(anchor, " ");
}
async function show() {
  let jobs;
  try {
    jobs = await (await fetch("/queue")).json();
  } catch (error) {
    return say("The server does not answer.");
  }
  const body = document.createDocumentFragment();
  for (const job of jobs) {
    const row = body.appendChild(document.createElement("tr"));
    const cell = text => {
      const made = row.appendChild(document.createElement("td"));
      made.textContent = text;
      return made;
    };
    const found = job.calibration;
    cell(job.id);
    cell(job.name);
    cell(job.state === "failure" ? "failure: " + job.log : job.state);
    cell(found ? found.ra.toFixed(5) + "\u00b0, " + found.dec.toFixed(5) + "\u00b0" : "");
    cell(found ? found.pixscale.toFixed(3) + "\u2033/px" : "");
    const files = cell("");
    if (found) link(files, "wcs", "/wcs_file/" + job.id);
    if (job.new_fits) link(files, "fits", "/new_fits_file/" + job.id);
  }
  document.getElementById("jobs").replaceChildren(body);
}
const drop = document.getElementById("drop");
drop.addEventListener("dragover", event => { event.preventDefault(); drop.classList.add("over"); });
drop.addEventListener("dragleave", () => drop.classList.remove("over"));
drop.addEventListener("drop", event => {
  event.preventDefault();
  drop.classList.remove("over");
  upload(event.dataTransfer.files);
});
document.getElementById("files").addEventListener("change", event => upload(event.target.files));
setInterval(show, 1000);
show();
</script>
</body>
</html>
)page";

}  // namespace vestrel
