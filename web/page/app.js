"use strict";
// The live view's page: pictures, read-outs and the point cloud over one WebSocket.
(function () {
  const NAMES = { 1: "Depth", 2: "Amplitude", 3: "PCL-Depth", 4: "IPCL-Depth", 5: "IPCL-Amplitude" };
  const HEADER = 24;
  // Figures the tests and the benchmark read through the browser's debugging protocol.
  const stats = { pictures: {}, decodeMs: [], bytes: 0, closed: null, readout: null, shown: {}, lastPng: {} };
  window.lumora = stats;

  const statusLine = document.getElementById("status");
  const fpsLine = document.getElementById("fps");
  const views = {};
  let socket = null;

  function view(id) {
    if (views[id]) return views[id];
    const figure = document.createElement("figure");
    const title = document.createElement("h2");
    title.textContent = NAMES[id];
    const canvas = document.createElement("canvas");
    canvas.className = "picture";
    canvas.id = "view-" + id;
    const caption = document.createElement("figcaption");
    caption.id = "readout-" + id;
    figure.append(title, canvas, caption);
    const order = Object.keys(views).map(Number).concat(id).sort();
    const next = order[order.indexOf(id) + 1];
    document.getElementById("views").insertBefore(figure, next ? views[next].figure : null);
    const v = { id, figure, canvas, caption, context: canvas.getContext("2d"), busy: false, waiting: null,
                sequence: 0, point: null };
    canvas.addEventListener("click", (event) => {
      if (v.dragged) return;
      const x = Math.floor(event.offsetX * canvas.width / canvas.clientWidth);
      const y = Math.floor(event.offsetY * canvas.height / canvas.clientHeight);
      v.point = [x, y];
      send("click " + id + " " + x + " " + y + " " + v.sequence);
    });
    views[id] = v;
    if (id === 1) measure.attach(v);
    return v;
  }

  function send(text) {
    if (socket && socket.readyState === WebSocket.OPEN) socket.send(text);
  }

  let lastDecoded = 0;

  // Where the browser has ImageDecoder (a secure context: this machine, or https), a picture
  // is decoded from the message's bytes and its pixels copied into the canvas: an ImageBitmap
  // made from a Blob, or a decoded frame drawn as an image, costs the browser several times
  // the decoding itself. Elsewhere the Blob and ImageBitmap do.
  const direct = typeof ImageDecoder === "function" && typeof VideoFrame === "function" &&
    typeof VideoFrame.prototype.copyTo === "function";

  function paintDirect(v, bytes, type) {
    const decoder = new ImageDecoder({ data: bytes, type });
    return decoder.decode().then(({ image }) => {
      const width = image.displayWidth;
      const height = image.displayHeight;
      if (!v.pixels || v.pixels.width !== width || v.pixels.height !== height) v.pixels = new ImageData(width, height);
      return image.copyTo(v.pixels.data, { format: "RGBA" }).then(() => {
        fit(v, width, height);
        v.context.putImageData(v.pixels, 0, 0);
      }).finally(() => image.close());
    }).finally(() => decoder.close());
  }

  function paintBitmap(v, bytes, type) {
    return createImageBitmap(new Blob([bytes], { type })).then((bitmap) => {
      fit(v, bitmap.width, bitmap.height);
      v.context.drawImage(bitmap, 0, 0);
      bitmap.close();
    });
  }

  function fit(v, width, height) {
    if (v.canvas.width !== width || v.canvas.height !== height) {
      v.canvas.width = width;
      v.canvas.height = height;
    }
  }

  // The newest picture of a view is decoded while older ones still waiting are dropped.
  function show(v, head, bytes, type) {
    if (v.busy) {
      v.waiting = [head, bytes, type];
      return;
    }
    v.busy = true;
    const received = performance.now();
    (direct ? paintDirect : paintBitmap)(v, bytes, type).then(() => {
      v.sequence = head.sequence;
      stats.shown[v.id] = { sequence: head.sequence, timestamp: head.timestamp };
      if (head.format === 1) stats.lastPng[v.id] = { timestamp: head.timestamp, blob: new Blob([bytes], { type }) };
      if (v.point) marker(v);
      if (v.id === 1) measure.overlay(v);
      stats.decodeMs.push(performance.now() - received);
      if (stats.decodeMs.length > 10000) stats.decodeMs.shift();
      stats.pictures[v.id] = (stats.pictures[v.id] || 0) + 1;
      if (head.sequence !== lastDecoded) {
        lastDecoded = head.sequence;
        send("decoded " + head.sequence);
      }
    }).catch(() => {}).finally(() => {
      v.busy = false;
      if (v.waiting) {
        const [h, b, t] = v.waiting;
        v.waiting = null;
        show(v, h, b, t);
      }
    });
  }

  // A small ring at the read-out point, drawn over the picture.
  function marker(v) {
    const c = v.context;
    c.beginPath();
    c.arc(v.point[0] + 0.5, v.point[1] + 0.5, 4, 0, 2 * Math.PI);
    c.lineWidth = 2;
    c.strokeStyle = "#000";
    c.stroke();
    c.lineWidth = 1;
    c.strokeStyle = "#fff";
    c.stroke();
  }

  function parseHead(buffer) {
    const d = new DataView(buffer);
    return {
      kind: d.getUint8(0), view: d.getUint8(1), format: d.getUint8(2), sequence: d.getUint32(4, true),
      timestamp: Number(d.getBigUint64(8, true)), width: d.getUint16(16, true), height: d.getUint16(18, true),
      count: d.getUint32(20, true),
    };
  }

  function onText(message) {
    if (message.type === "status") {
      statusLine.textContent = message.camera + " " + message.serial + " · mask " + message.mask + " · " +
        message.width + " x " + message.height + " · lists drawn " + message.drawn + ", dropped " + message.dropped;
      fpsLine.textContent = message.fps;
      measure.frame(message.width, message.height);
    } else if (message.type === "quality") {
      measure.figures(message);
    } else if (message.type === "readout") {
      stats.readout = message;
      const v = views[message.view];
      if (!v) return;
      v.caption.textContent = message.none ? "  no value there" : NAMES[message.view] + message.text +
        "  (frame " + message.timestamp + " µs)";
    }
  }

  function connect() {
    socket = new WebSocket((location.protocol === "https:" ? "wss://" : "ws://") + location.host + "/ws" +
                           location.search);
    socket.binaryType = "arraybuffer";
    socket.onopen = () => {
      if (cloud.open) send("cloud 1");
      measure.reopened();
    };
    socket.onmessage = (event) => {
      if (typeof event.data === "string") {
        onText(JSON.parse(event.data));
        return;
      }
      stats.bytes += event.data.byteLength;
      const head = parseHead(event.data);
      if (head.kind === 1 && NAMES[head.view]) {
        const type = head.format === 1 ? "image/png" : "image/jpeg";
        show(view(head.view), head, new Uint8Array(event.data, HEADER), type);
      } else if (head.kind === 2) {
        cloud.points(head, new Int16Array(event.data, HEADER, head.count * 3));
      }
    };
    socket.onclose = (event) => {
      stats.closed = event.reason || "closed (" + event.code + ")";
      statusLine.textContent = "not connected: " + stats.closed;
    };
  }

  // Measure: the depth-quality figures of the shell's live measurement over an ROI dragged on
  // the Depth picture, once a second, with a trend of the last minute and every second received
  // as CSV. The page only draws: the figures come made.
  const measure = (function () {
    const FIGURES = [
      ["fill_rate_pct", "fill rate", (q) => q.fill_rate_pct.toFixed(2) + " %"],
      ["distance_mm", "distance", (q) => q.distance_mm.toFixed(1) + " mm"],
      ["plane_angle_deg", "plane angle", (q) => q.plane_angle_deg.toFixed(2) + " deg"],
      ["plane_fit_rms_mm", "plane-fit RMS", (q) => q.plane_fit_rms_mm.toFixed(2) + " mm"],
      ["temporal_noise_mm", "temporal noise", (q) => q.temporal_noise_mm.toFixed(2) + " mm"],
      ["z_error_mm", "Z accuracy", (q) => signed(q.z_error_mm, 1) + " mm (" + signed(q.z_error_pct, 2) + " %)"],
      ["amplitude_mean", "amplitude",
       (q) => "mean " + q.amplitude_mean.toFixed(1) + ", 5th percentile " + q.amplitude_p5.toFixed(0)],
    ];
    const COLUMNS = ["fill_rate_pct", "distance_mm", "plane_angle_deg", "plane_fit_rms_mm", "temporal_noise_mm",
                     "z_error_mm", "z_error_pct", "amplitude_mean", "amplitude_p5"];
    const TREND_MS = 60000;
    const KEPT_ROWS = 86400;
    const panel = document.getElementById("measure");
    const toggle = document.getElementById("measure-toggle");
    const head = document.getElementById("measure-head");
    const table = document.getElementById("measure-figures");
    const trend = document.getElementById("measure-trend");
    const csv = document.getElementById("measure-csv");
    // `roi` is the one drawn, `given` the last one dragged here, `served` that of the last figures.
    const state = { on: false, frame: null, roi: null, given: null, served: null, drag: null, rows: [], url: null };

    function signed(value, digits) { return (value >= 0 ? "+" : "") + value.toFixed(digits); }
    function same(a, b) { return !!a && !!b && a.every((value, i) => value === b[i]); }

    // The centred 40% of the frame, rounded as the shell does, until figures say otherwise.
    function shownRoi() {
      if (state.roi) return state.roi;
      const [width, height] = state.frame;
      const w = Math.max(1, Math.floor((width * 40 + 50) / 100)), h = Math.max(1, Math.floor((height * 40 + 50) / 100));
      return [Math.floor((width - w) / 2), Math.floor((height - h) / 2), w, h];
    }

    // Where the mouse is on the picture, as a share of its shown size: the picture may be the
    // frame scaled down, and shown scaled again.
    function share(canvas, event) {
      const box = canvas.getBoundingClientRect();
      const clamp = (value) => Math.min(1, Math.max(0, value));
      return [clamp((event.clientX - box.left) / box.width), clamp((event.clientY - box.top) / box.height)];
    }

    // The frame's pixels between two shares of the picture: [x, y, width, height].
    function frameRect(a, b) {
      const [width, height] = state.frame;
      const x = Math.min(width - 1, Math.floor(Math.min(a[0], b[0]) * width));
      const y = Math.min(height - 1, Math.floor(Math.min(a[1], b[1]) * height));
      return [x, y, Math.max(1, Math.ceil(Math.max(a[0], b[0]) * width) - x),
              Math.max(1, Math.ceil(Math.max(a[1], b[1]) * height) - y)];
    }

    function attach(v) {
      v.canvas.addEventListener("mousedown", (event) => {
        if (!state.on || !state.frame || event.button !== 0) return;
        const at = share(v.canvas, event);
        state.drag = { from: at, to: at, x: event.clientX, y: event.clientY };
      });
      window.addEventListener("mousemove", (event) => {
        if (state.drag) state.drag.to = share(v.canvas, event);
      });
      window.addEventListener("mouseup", (event) => {
        const drag = state.drag;
        if (!drag) return;
        state.drag = null;
        // A press without a drag is a click: the read-out's.
        if (Math.abs(event.clientX - drag.x) + Math.abs(event.clientY - drag.y) < 4) return;
        state.roi = state.given = frameRect(drag.from, share(v.canvas, event));
        stats.roi = state.roi;
        send("roi " + state.roi.join(" "));
        v.dragged = true;
        setTimeout(() => { v.dragged = false; }, 0);
      });
    }

    function overlay(v) {
      if (!state.on || !state.frame) return;
      const c = v.context, sx = v.canvas.width / state.frame[0], sy = v.canvas.height / state.frame[1];
      const r = state.drag ? frameRect(state.drag.from, state.drag.to) : shownRoi();
      c.lineWidth = 1;
      for (const [colour, offset] of [["#fff", 0], ["#000", 4]]) {
        c.setLineDash([4, 4]);
        c.lineDashOffset = offset;
        c.strokeStyle = colour;
        c.strokeRect(r[0] * sx + 0.5, r[1] * sy + 0.5, r[2] * sx - 1, r[3] * sy - 1);
      }
      c.setLineDash([]);
    }

    function figures(message) {
      stats.quality = message;
      if (!state.on) return;
      // Another page's ROI, or ours come back: the one the figures are over from now on.
      if (message.roi[2] > 0 && !same(message.roi, state.served)) {
        state.served = message.roi;
        state.roi = message.roi.slice();
        stats.roi = state.roi;
      }
      const [x, y, w, h] = message.roi;
      head.textContent = message.problem ? "no figures: " + message.problem :
        "ROI " + x + "," + y + " " + w + "x" + h + " · " + message.lists + " of " + message.window + " lists";
      table.replaceChildren(...FIGURES.map(([key, name, text]) => {
        const row = document.createElement("tr");
        row.id = "figure-" + key;
        for (const cell of [name, message[key] === null ? message.reasons[key] || "" : text(message)]) {
          const td = document.createElement("td");
          td.textContent = cell;
          row.append(td);
        }
        return row;
      }));
      if (!message.problem) {
        state.rows.push(Object.assign({ time: Date.now(), lists: message.lists, roi: message.roi },
                                      ...COLUMNS.map((key) => ({ [key]: message[key] }))));
        if (state.rows.length > KEPT_ROWS) state.rows.shift();
      }
      drawTrend();
    }

    // Distance (left scale) and temporal noise (right scale) of the last minute.
    function drawTrend() {
      const c = trend.getContext("2d"), width = trend.width, height = trend.height, now = Date.now(), pad = 14;
      c.fillStyle = "#000";
      c.fillRect(0, 0, width, height);
      c.font = "10px monospace";
      const recent = state.rows.filter((row) => row.time > now - TREND_MS);
      for (const [key, colour, right] of [["distance_mm", "#ffd166", false], ["temporal_noise_mm", "#6fd3ff", true]]) {
        const points = recent.filter((row) => row[key] !== null);
        if (!points.length) continue;
        let low = Math.min(...points.map((row) => row[key])), high = Math.max(...points.map((row) => row[key]));
        if (high - low < 0.1) { low -= 0.05; high += 0.05; }
        const toY = (value) => height - pad - (value - low) / (high - low) * (height - 2 * pad);
        c.strokeStyle = colour;
        c.beginPath();
        points.forEach((row, i) => {
          const toX = (row.time - now + TREND_MS) / TREND_MS * width;
          if (i) c.lineTo(toX, toY(row[key])); else c.moveTo(toX, toY(row[key]));
        });
        c.stroke();
        c.fillStyle = colour;
        c.textAlign = right ? "right" : "left";
        c.fillText(high.toFixed(1) + " mm", right ? width - 2 : 2, 10);
        c.fillText(low.toFixed(1) + " mm", right ? width - 2 : 2, height - 3);
      }
    }

    // The link downloads the rows as they are when it is clicked.
    csv.addEventListener("click", () => {
      const lines = ["time,lists,roi_x,roi_y,roi_width,roi_height," + COLUMNS.join(",")];
      for (const row of state.rows)
        lines.push([new Date(row.time).toISOString(), row.lists, ...row.roi,
                    ...COLUMNS.map((key) => row[key] === null ? "" : row[key])].join(","));
      if (state.url) URL.revokeObjectURL(state.url);
      state.url = URL.createObjectURL(new Blob([lines.join("\n") + "\n"], { type: "text/csv" }));
      csv.href = state.url;
    });

    toggle.addEventListener("click", () => {
      state.on = !state.on;
      toggle.setAttribute("aria-pressed", String(state.on));
      panel.hidden = !state.on;
      send(state.on ? "measure 1" : "measure 0");
    });

    return {
      attach, overlay, figures,
      frame(width, height) { if (width > 0 && height > 0) state.frame = [width, height]; },
      // A new serving knows nothing of this page: it is told again.
      reopened() {
        if (!state.on) return;
        send("measure 1");
        if (state.given) send("roi " + state.given.join(" "));
      },
    };
  })();

  // The 3-D view: WebGL points coloured by distance, turned by dragging.
  const cloud = (function () {
    const section = document.getElementById("cloud");
    const canvas = document.getElementById("cloud-canvas");
    const info = document.getElementById("cloud-info");
    const gl = canvas.getContext("webgl");
    const state = { open: false, yaw: 0, pitch: 0, distance: 3000, count: 0, buffer: null, program: null };
    if (gl) {
      const vertex = "attribute vec3 p; uniform mat4 m; uniform float far; varying float t;" +
        "void main() { gl_Position = m * vec4(p.x, -p.y, -p.z, 1.0); gl_PointSize = 2.0; t = clamp(p.z / far, 0.0, 1.0); }";
      const fragment = "precision mediump float; varying float t;" +
        "void main() { gl_FragColor = vec4(clamp(vec3(1.5 - abs(4.0 * t - 3.0), 1.5 - abs(4.0 * t - 2.0)," +
        " 1.5 - abs(4.0 * t - 1.0)), 0.0, 1.0), 1.0); }";
      const program = gl.createProgram();
      for (const [type, text] of [[gl.VERTEX_SHADER, vertex], [gl.FRAGMENT_SHADER, fragment]]) {
        const shader = gl.createShader(type);
        gl.shaderSource(shader, text);
        gl.compileShader(shader);
        gl.attachShader(program, shader);
      }
      gl.linkProgram(program);
      state.program = program;
      state.buffer = gl.createBuffer();
    }

    function multiply(a, b) {
      const r = new Float32Array(16);
      for (let i = 0; i < 4; i++)
        for (let j = 0; j < 4; j++)
          for (let k = 0; k < 4; k++) r[j * 4 + i] += a[k * 4 + i] * b[j * 4 + k];
      return r;
    }

    function draw() {
      if (!gl || !state.open) return;
      gl.viewport(0, 0, canvas.width, canvas.height);
      gl.clearColor(0, 0, 0, 1);
      gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
      gl.enable(gl.DEPTH_TEST);
      if (!state.count) return;
      const f = 1 / Math.tan(0.6), aspect = canvas.width / canvas.height, near = 10, far = 20000;
      const projection = [f / aspect, 0, 0, 0, 0, f, 0, 0, 0, 0, (far + near) / (near - far), -1,
                          0, 0, 2 * far * near / (near - far), 0];
      const cy = Math.cos(state.yaw), sy = Math.sin(state.yaw), cp = Math.cos(state.pitch), sp = Math.sin(state.pitch);
      const centre = state.distance;
      // Turn about a point in front of the camera, then move back to see it.
      const toCentre = [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, centre, 1];
      const turn = multiply([1, 0, 0, 0, 0, cp, sp, 0, 0, -sp, cp, 0, 0, 0, 0, 1],
                            [cy, 0, -sy, 0, 0, 1, 0, 0, sy, 0, cy, 0, 0, 0, 0, 1]);
      const back = [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, -centre, 1];
      const matrix = multiply(projection, multiply(back, multiply(turn, toCentre)));
      gl.useProgram(state.program);
      gl.uniformMatrix4fv(gl.getUniformLocation(state.program, "m"), false, matrix);
      gl.uniform1f(gl.getUniformLocation(state.program, "far"), 2 * centre);
      const location = gl.getAttribLocation(state.program, "p");
      gl.bindBuffer(gl.ARRAY_BUFFER, state.buffer);
      gl.enableVertexAttribArray(location);
      gl.vertexAttribPointer(location, 3, gl.SHORT, false, 6, 0);
      gl.drawArrays(gl.POINTS, 0, state.count);
    }

    let drag = null;
    canvas.addEventListener("mousedown", (e) => { drag = [e.clientX, e.clientY]; });
    window.addEventListener("mouseup", () => { drag = null; });
    window.addEventListener("mousemove", (e) => {
      if (!drag) return;
      state.yaw += (e.clientX - drag[0]) * 0.01;
      state.pitch = Math.max(-1.5, Math.min(1.5, state.pitch + (e.clientY - drag[1]) * 0.01));
      drag = [e.clientX, e.clientY];
      draw();
    });
    canvas.addEventListener("wheel", (e) => {
      e.preventDefault();
      state.distance = Math.max(200, Math.min(15000, state.distance * (e.deltaY > 0 ? 1.1 : 0.9)));
      draw();
    });
    document.getElementById("cloud-toggle").addEventListener("click", () => {
      state.open = !state.open;
      section.hidden = !state.open;
      send(state.open ? "cloud 1" : "cloud 0");
      if (!gl) info.textContent = "this browser offers no WebGL";
      draw();
    });

    return {
      get open() { return state.open; },
      points(head, xyz) {
        if (!gl || !state.open) return;
        gl.bindBuffer(gl.ARRAY_BUFFER, state.buffer);
        gl.bufferData(gl.ARRAY_BUFFER, xyz, gl.DYNAMIC_DRAW);
        state.count = head.count;
        info.textContent = NAMES[head.view] + ": " + head.count + " points, frame " + head.timestamp + " µs";
        stats.cloudPoints = head.count;
        stats.clouds = (stats.clouds || 0) + 1;
        draw();
      },
    };
  })();

  connect();
})();
