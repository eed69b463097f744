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
      const x = Math.floor(event.offsetX * canvas.width / canvas.clientWidth);
      const y = Math.floor(event.offsetY * canvas.height / canvas.clientHeight);
      v.point = [x, y];
      send("click " + id + " " + x + " " + y + " " + v.sequence);
    });
    views[id] = v;
    return v;
  }

  function send(text) {
    if (socket && socket.readyState === WebSocket.OPEN) socket.send(text);
  }

  let lastDecoded = 0;
  // The newest picture of a view is decoded while older ones still waiting are dropped.
  function show(v, head, blob) {
    if (v.busy) {
      v.waiting = [head, blob];
      return;
    }
    v.busy = true;
    const received = performance.now();
    createImageBitmap(blob).then((bitmap) => {
      if (v.canvas.width !== bitmap.width || v.canvas.height !== bitmap.height) {
        v.canvas.width = bitmap.width;
        v.canvas.height = bitmap.height;
      }
      v.context.drawImage(bitmap, 0, 0);
      bitmap.close();
      v.sequence = head.sequence;
      stats.shown[v.id] = { sequence: head.sequence, timestamp: head.timestamp };
      if (head.format === 1) stats.lastPng[v.id] = { timestamp: head.timestamp, blob };
      if (v.point) marker(v);
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
        const [h, b] = v.waiting;
        v.waiting = null;
        show(v, h, b);
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
    socket.onopen = () => { if (cloud.open) send("cloud 1"); };
    socket.onmessage = (event) => {
      if (typeof event.data === "string") {
        onText(JSON.parse(event.data));
        return;
      }
      stats.bytes += event.data.byteLength;
      const head = parseHead(event.data);
      if (head.kind === 1 && NAMES[head.view]) {
        const type = head.format === 1 ? "image/png" : "image/jpeg";
        show(view(head.view), head, new Blob([event.data.slice(HEADER)], { type }));
      } else if (head.kind === 2) {
        cloud.points(head, new Int16Array(event.data, HEADER, head.count * 3));
      }
    };
    socket.onclose = (event) => {
      stats.closed = event.reason || "closed (" + event.code + ")";
      statusLine.textContent = "not connected: " + stats.closed;
    };
  }

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
