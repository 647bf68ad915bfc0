// The qor-sim viewer: a WAMP client of the server it was served by. It reads what to draw
// from "qor.viewer.scene", moves the bodies with every state published on
// "qor.server.update", shows device frames from "qor.viewer.markers", and drives the
// simulation with the server's own operations. Everything it knows about the wire layout of
// a published state comes from the server's scene answer.
//
// `window.viewer` holds what the page shows (connection, step, bodies, poses, rates), so an
// automated browser can read the page's own state rather than its pixels.

import * as THREE from 'three';
import { OrbitControls } from 'three/addons/controls/OrbitControls.js';

const OPERATION = 'qor.server.operation.';
const STATE_NAMES = ['stopped', 'running', 'paused'];
const params = new URLSearchParams(location.search);
const realm = params.get('realm') || 'realm1';

const viewer = {
  connection: 'connecting',
  ready: false,         // connected, scene drawn, subscribed
  state: 'unknown',
  step: null,
  time: null,
  bodies: 0,
  planes: 0,
  poses: {},            // id -> [x, y, z] as last drawn
  updates: 0,           // published states received
  updatesPerSecond: 0,
  framesPerSecond: 0,
  frames: 0,
  latency: { samples: 0, lastMs: 0, meanMs: 0, maxMs: 0 },  // state received -> drawn
  markers: 0,
  clicks: [],           // buttons pressed, in order
  calls: [],            // [operation, milliseconds] of every answered call
  errors: [],
};
window.viewer = viewer;

// ---- rendering -------------------------------------------------------------------------------

const canvas = document.getElementById('scene');
const renderer = new THREE.WebGLRenderer({ canvas, antialias: true, preserveDrawingBuffer: true });
renderer.setPixelRatio(window.devicePixelRatio);
const scene = new THREE.Scene();
scene.background = new THREE.Color(0x20242b);
const camera = new THREE.PerspectiveCamera(50, 1, 0.05, 500);
camera.up.set(0, 0, 1);  // the simulation is z-up
camera.position.set(3.5, -5, 2.4);
const controls = new OrbitControls(camera, canvas);
controls.target.set(0, 0, 0.5);
controls.update();
scene.add(new THREE.HemisphereLight(0xffffff, 0x404050, 1.6));
const sun = new THREE.DirectionalLight(0xffffff, 1.8);
sun.position.set(4, -3, 10);
scene.add(sun);

const world = new THREE.Group();   // bodies and planes of the current scene
const markerGroup = new THREE.Group();
scene.add(world, markerGroup);
const meshes = new Map();          // body id -> THREE.Mesh

function resize() {
  const w = canvas.clientWidth, h = canvas.clientHeight;
  if (canvas.width !== Math.floor(w * renderer.getPixelRatio()) ||
      canvas.height !== Math.floor(h * renderer.getPixelRatio())) {
    renderer.setSize(w, h, false);
    camera.aspect = w / Math.max(h, 1);
    camera.updateProjectionMatrix();
  }
}

const palette = [0xe07a5f, 0x81b29a, 0xf2cc8f, 0x7aa6e0, 0xc18fd6, 0x6fd0c9];

function geometryOf(body) {
  const [sx, sy, sz] = body.size;
  switch (body.shape) {
    case 'box': return new THREE.BoxGeometry(2 * sx, 2 * sy, 2 * sz);
    case 'sphere': return new THREE.SphereGeometry(sx, 32, 16);
    case 'capsule': {
      const g = new THREE.CapsuleGeometry(sx, sy, 8, 24);
      g.rotateX(Math.PI / 2);  // three's capsules run along y, ours along z
      return g;
    }
    case 'mesh': {
      const g = new THREE.BufferGeometry();
      const v = Float32Array.from(body.vertices, (x, i) => x * body.size[i % 3]);
      g.setAttribute('position', new THREE.BufferAttribute(v, 3));
      g.setIndex(Array.from(body.triangles));
      g.computeVertexNormals();
      return g;
    }
    default: return null;
  }
}

function planeOf(plane) {
  const n = new THREE.Vector3(...plane.normal).normalize();
  const g = new THREE.PlaneGeometry(40, 40, 40, 40);
  const m = new THREE.Mesh(g, new THREE.MeshStandardMaterial({ color: 0x59606e, side: THREE.DoubleSide }));
  m.quaternion.setFromUnitVectors(new THREE.Vector3(0, 0, 1), n);
  m.position.copy(n.clone().multiplyScalar(plane.offset));
  const grid = new THREE.Mesh(g, new THREE.MeshBasicMaterial({ color: 0x7a8292, wireframe: true }));
  grid.position.z = 0.001;
  m.add(grid);
  return m;
}

let layout = null;  // where the pose sits in a published state, from the scene answer

function buildScene(description) {
  world.clear();
  meshes.clear();
  viewer.poses = {};
  layout = { update: description.update, body: description.body_state };
  description.planes.forEach((p) => world.add(planeOf(p)));
  description.bodies.forEach((b, i) => {
    const geometry = geometryOf(b);
    if (!geometry) return;
    const color = b.mass === 0 ? 0x8a8f99 : palette[i % palette.length];
    const mesh = new THREE.Mesh(geometry, new THREE.MeshStandardMaterial({ color, roughness: 0.6 }));
    place(mesh, b.id, b.position, b.rotation);
    world.add(mesh);
    meshes.set(String(b.id), mesh);
  });
  viewer.bodies = meshes.size;
  viewer.planes = description.planes.length;
  show('bodies', viewer.bodies);
}

function place(mesh, id, p, q) {
  mesh.position.set(p[0], p[1], p[2]);
  mesh.quaternion.set(q[1], q[2], q[3], q[0]);  // ours is scalar first
  viewer.poses[id] = [p[0], p[1], p[2]];
}

// ---- published states ------------------------------------------------------------------------

let pendingDraw = [];   // arrival times of states not drawn yet
let unknownBodies = false;
const unpack = autobahn.msgpack();

function applyResult(result) {
  if (!layout) return;
  const u = layout.update;
  // Integer keys come back as a Map from the decoder, as an object from others.
  const decoded = unpack.decode(result[u.states]);
  const states = decoded instanceof Map ? decoded : new Map(Object.entries(decoded));
  for (const [key, s] of states) {
    const id = String(key);
    const mesh = meshes.get(id);
    if (!mesh) { unknownBodies = true; continue; }
    place(mesh, id, s[layout.body.position], s[layout.body.rotation]);
  }
  // A scene sent or loaded starts again from step 0, possibly with other bodies under the
  // same ids: read it again.
  if (viewer.step !== null && result[u.step] < viewer.step) unknownBodies = true;
  viewer.step = result[u.step];
  const details = result[u.details];
  viewer.time = details[u.time];
  if (performance.now() >= controlStateUntil) setState(details[u.state]);
  show('step', viewer.step);
  show('time', viewer.time.toFixed(3) + ' s');
  pendingDraw.push(performance.now());
  if (unknownBodies) refreshScene();
}

function setState(code) {
  viewer.state = STATE_NAMES[code] || String(code);
  show('state', viewer.state);
}

// The server publishes steps from its own clock and answers calls as they come, so a step
// published just before a Stop or Pause can arrive just after its answer. For a moment after
// a control's answer, the state it gave wins over the state carried by published steps.
const CONTROL_STATE_HOLD_MS = 1000;
let controlStateUntil = 0;
function setControlState(code) {
  setState(code);
  controlStateUntil = performance.now() + CONTROL_STATE_HOLD_MS;
}

let updateTimes = [];
function onUpdate(args) {
  viewer.updates += 1;
  updateTimes.push(performance.now());
  try {
    applyResult(args[0]);
  } catch (e) {
    note('cannot read a published state: ' + e.message);
  }
}

const markerObjects = new Map();  // device topic -> THREE.Points
function onMarkers(args) {
  const m = args[0];
  let points = markerObjects.get(m.device);
  if (!points) {
    const color = m.kind === 'skeleton' ? 0x7cf29a : 0xf2e07c;
    points = new THREE.Points(new THREE.BufferGeometry(),
                              new THREE.PointsMaterial({ color, size: 0.06 }));
    markerObjects.set(m.device, points);
    markerGroup.add(points);
  }
  points.geometry.setAttribute('position', new THREE.BufferAttribute(Float32Array.from(m.points), 3));
  points.geometry.computeBoundingSphere();
  let total = 0;
  markerObjects.forEach((p) => { total += p.geometry.getAttribute('position').count; });
  viewer.markers = total;
  show('markers', total);
}

// ---- the connection --------------------------------------------------------------------------

let session = null;
let savedScene = null;  // the scene record as first read, for Reset (opaque bytes)
let refreshing = null;

function call(name, args = []) {
  if (!session) return Promise.reject(new Error('not connected'));
  const started = performance.now();
  return session.call(name.startsWith('qor.') ? name : OPERATION + name, args).then((r) => {
    viewer.calls.push([name, Math.round(performance.now() - started)]);
    return r;
  });
}

function refreshScene() {
  if (refreshing) return refreshing;
  unknownBodies = false;
  refreshing = call('qor.viewer.scene').then(buildScene).finally(() => { refreshing = null; });
  return refreshing;
}

async function opened(s) {
  session = s;
  setConnection('connected');
  note('');
  try {
    await refreshScene();
    if (!savedScene) savedScene = await call('GET_SERVER_SCENE');
    await s.subscribe('qor.server.update', onUpdate);
    await s.subscribe('qor.viewer.markers', onMarkers);
    viewer.ready = true;
  } catch (e) {
    note('cannot read the scene: ' + errorText(e));
  }
}

function errorText(e) {
  if (e && e.error) return e.error + (e.args && e.args.length ? ': ' + e.args[0] : '');
  return e && e.message ? e.message : String(e);
}

let ticket = null;
let replacing = false;  // the page closes the connection itself to open another
function connect() {
  const options = {
    url: (location.protocol === 'https:' ? 'wss://' : 'ws://') + location.host + '/ws',
    realm,
    serializers: [new autobahn.serializer.MsgpackSerializer()],
    max_retries: -1,
    initial_retry_delay: 0.5,
    max_retry_delay: 2,
    retry_delay_growth: 1.5,
  };
  if (ticket) {
    options.authmethods = ['ticket'];
    options.authid = ticket.authid;
    options.onchallenge = () => ticket.secret;
  }
  const link = new autobahn.Connection(options);
  link.onopen = opened;
  link.onclose = (reason, details) => {
    session = null;
    viewer.ready = false;
    const refused = details && details.reason && /not_authorized|authentication|no_auth/.test(details.reason);
    if (refused) {
      setConnection('needs a ticket');
      document.getElementById('ticket-form').hidden = false;
      return true;  // stop retrying until the person gives one
    }
    // A server that shuts down says GOODBYE, after which autobahn does not retry by itself;
    // the page keeps trying, so that a restarted server is picked up again.
    if (!(details && details.will_retry) && !replacing) {
      setTimeout(() => { if (!session) connection = connect(); }, 1000);
    }
    setConnection('reconnecting');
    return false;
  };
  link.open();
  return link;
}

let connection = connect();

document.getElementById('ticket-form').addEventListener('submit', (ev) => {
  ev.preventDefault();
  ticket = { authid: document.getElementById('authid').value,
             secret: document.getElementById('ticket').value };
  document.getElementById('ticket-form').hidden = true;
  replacing = true;
  try { connection.close(); } catch (e) { /* already closed */ }
  replacing = false;
  connection = connect();
});

// ---- controls --------------------------------------------------------------------------------

function control(id, action) {
  document.getElementById(id).addEventListener('click', () => {
    viewer.clicks.push(id);
    action().catch((e) => note(errorText(e)));
  });
}
control('start', () => call('START_SIMULATION').then(setControlState));
control('pause', () => call('PAUSE_SIMULATION').then(setControlState));
control('resume', () => call('RESUME_SIMULATION').then(setControlState));
control('stop', () => call('STOP_SIMULATION').then(setControlState));
control('step-once', () => call('STEP_SIMULATION').then(applyResult));
control('reset', async () => {
  setControlState(await call('STOP_SIMULATION'));
  if (savedScene) await call('SEND_SCENE', [savedScene]);
  await refreshScene();
});
document.getElementById('period-form').addEventListener('submit', (ev) => {
  ev.preventDefault();
  const ms = Number(document.getElementById('period').value);
  call('SET_SERVER_PERIOD_MS', [ms]).then(() => note('step period ' + ms + ' ms'),
                                          (e) => note(errorText(e)));
});

// ---- the panel and the frame loop ------------------------------------------------------------

function show(id, text) { document.getElementById(id).textContent = text; }
function note(text) {
  show('message', text);
  if (text) viewer.errors.push(text);
}
function setConnection(text) {
  viewer.connection = text;
  show('connection', text);
}

let frameTimes = [];
function frame(now) {
  resize();
  controls.update();
  renderer.render(scene, camera);
  viewer.frames += 1;
  // Every state that arrived before this frame is on screen now.
  for (const arrived of pendingDraw) {
    const ms = now - arrived;
    const l = viewer.latency;
    if (ms < 0) continue;
    l.samples += 1;
    l.lastMs = ms;
    l.meanMs += (ms - l.meanMs) / l.samples;
    l.maxMs = Math.max(l.maxMs, ms);
  }
  pendingDraw = pendingDraw.filter((t) => t > now);
  frameTimes.push(now);
  const since = now - 1000;
  frameTimes = frameTimes.filter((t) => t > since);
  updateTimes = updateTimes.filter((t) => t > since);
  viewer.framesPerSecond = frameTimes.length;
  viewer.updatesPerSecond = updateTimes.length;
  if (viewer.frames % 15 === 0) {
    show('fps', viewer.framesPerSecond);
    show('rate', viewer.updatesPerSecond);
  }
  requestAnimationFrame(frame);
}
requestAnimationFrame(frame);
