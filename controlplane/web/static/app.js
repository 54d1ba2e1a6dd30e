// The control plane's page: polls the JSON endpoints and redraws in place.
'use strict';

const POLL_MS = 5000;
const LIVE_KEEP = 200;        // entries kept in each live list
const STALE_HEARTBEAT = 120;  // seconds without a heartbeat shown as stale

const state = {
  agent: null,   // the selected agent's name
  series: null,  // the charted series: {agent, object_id, stat_key, stat_item}
  lastText: 0,   // the last ids shown in the live lists
  lastLine: 0,
  chart: null,
};

const $ = (id) => document.getElementById(id);

async function getJson(path) {
  const response = await fetch(path, { cache: 'no-store' });
  const body = await response.json();
  if (!response.ok) throw new Error(body.error || response.statusText);
  return body;
}

function query(params) {
  return Object.entries(params).map(([k, v]) => encodeURIComponent(k) + '=' + encodeURIComponent(v)).join('&');
}

function cell(row, text, className) {
  const td = document.createElement('td');
  td.textContent = text;
  if (className) td.className = className;
  row.appendChild(td);
  return td;
}

function age(seconds) {
  if (seconds === null || seconds === undefined) return 'never';
  if (seconds < 120) return seconds + ' s ago';
  if (seconds < 7200) return Math.round(seconds / 60) + ' min ago';
  return Math.round(seconds / 3600) + ' h ago';
}

function clock(epochSeconds) {
  return new Date(epochSeconds * 1000).toLocaleTimeString();
}

function sameSeries(a, b) {
  return a && b && a.agent === b.agent && a.object_id === b.object_id && a.stat_key === b.stat_key &&
         a.stat_item === b.stat_item;
}

async function refreshAgents() {
  const data = await getJson('api/agents');
  const body = $('agents').tBodies[0];
  body.replaceChildren();
  for (const agent of data.agents) {
    const row = body.insertRow();
    row.dataset.agent = agent.name;
    if (agent.name === state.agent) row.className = 'selected';
    cell(row, agent.name);
    cell(row, agent.address);
    cell(row, agent.version);
    cell(row, agent.job_count, 'num');
    const stale = agent.heartbeat_age === null || agent.heartbeat_age > STALE_HEARTBEAT;
    cell(row, age(agent.heartbeat_age), stale ? 'stale' : '');
    row.addEventListener('click', () => selectAgent(agent.name));
  }
  if (state.agent === null && data.agents.length > 0) state.agent = data.agents[0].name;
}

async function refreshSeries() {
  $('series-agent').textContent = state.agent || '–';
  const body = $('series').tBodies[0];
  if (state.agent === null) return;
  const data = await getJson('api/series?' + query({ agent: state.agent }));
  body.replaceChildren();
  for (const s of data.series) {
    const series = { agent: state.agent, object_id: s.object_id, stat_key: s.stat_key, stat_item: s.stat_item };
    const row = body.insertRow();
    if (sameSeries(series, state.series)) row.className = 'selected';
    cell(row, s.object_id, 'num');
    cell(row, s.stat_key);
    cell(row, s.stat_item, 'num');
    cell(row, s.value, 'num');
    cell(row, clock(s.received_at));
    row.addEventListener('click', () => selectSeries(series));
  }
  if ((state.series === null || state.series.agent !== state.agent) && data.series.length > 0) {
    const first = data.series[0];
    state.series = { agent: state.agent, object_id: first.object_id, stat_key: first.stat_key,
                     stat_item: first.stat_item };
  }
}

function makeChart() {
  return new Chart($('chart'), {
    type: 'line',
    data: { datasets: [{ data: [], borderColor: '#2f6fb2', backgroundColor: 'rgba(47,111,178,0.12)',
                         fill: true, pointRadius: 0, borderWidth: 1.5, tension: 0 }] },
    options: {
      animation: false,
      maintainAspectRatio: false,
      parsing: false,
      plugins: { legend: { display: false } },
      scales: { x: { type: 'linear', ticks: { callback: (value) => clock(value), maxTicksLimit: 8 } } },
    },
  });
}

async function refreshChart() {
  const series = state.series;
  if (series === null || typeof Chart === 'undefined') return;
  const range = Number($('range').value);
  const now = Math.floor(Date.now() / 1000);
  const data = await getJson('api/points?' + query({ agent: series.agent, object: series.object_id,
    stat_key: series.stat_key, stat_item: series.stat_item, from: now - range, to: now }));
  if (!sameSeries(series, state.series)) return;  // another series was chosen meanwhile
  if (state.chart === null) state.chart = makeChart();
  state.chart.data.datasets[0].data = data.points.map(([t, v]) => ({ x: t, y: v }));
  state.chart.options.scales.x.min = data.from;
  state.chart.options.scales.x.max = data.to;
  state.chart.update();
  $('chart-title').textContent =
    `${series.agent} · object ${series.object_id} · ${series.stat_key} · item ${series.stat_item}`;
  $('chart').dataset.points = data.points.length;
}

function appendLive(list, entries, format) {
  for (const entry of entries) {
    const item = document.createElement('li');
    const meta = document.createElement('span');
    meta.className = 'meta';
    meta.textContent = clock(entry.received_at) + ' ' + entry.agent + ' ';
    item.append(meta, format(entry));
    list.prepend(item);
  }
  while (list.children.length > LIVE_KEEP) list.lastChild.remove();
}

async function refreshLive() {
  const texts = await getJson('api/texts?' + query({ after: state.lastText, limit: 100 }));
  appendLive($('texts'), texts.samples, (s) => `${s.stat_key} (job ${s.job_id}): ${s.text}`);
  if (texts.samples.length > 0) state.lastText = texts.samples[texts.samples.length - 1].id;
  const lines = await getJson('api/lines?' + query({ after: state.lastLine, limit: 100 }));
  appendLive($('lines'), lines.lines, (l) => l.line);
  if (lines.lines.length > 0) state.lastLine = lines.lines[lines.lines.length - 1].id;
}

async function refresh() {
  try {
    await refreshAgents();
    await refreshSeries();
    await refreshChart();
    await refreshLive();
    $('status').textContent = 'updated ' + new Date().toLocaleTimeString();
    $('status').className = '';
  } catch (failure) {
    $('status').textContent = 'update failed: ' + failure.message;
    $('status').className = 'error';
  }
}

function selectAgent(name) {
  state.agent = name;
  state.series = null;
  refresh();
}

function selectSeries(series) {
  state.series = series;
  remember();
  refresh();
}

// The chosen series and range live in the address, so a view can be
// bookmarked or sent: #agent=A&object=O&stat_key=K&stat_item=I&range=S.
function remember() {
  const s = state.series;
  const chosen = s ? { agent: s.agent, object: s.object_id, stat_key: s.stat_key, stat_item: s.stat_item } : {};
  history.replaceState(null, '', '#' + query({ ...chosen, range: $('range').value }));
}

function recall() {
  const hash = new URLSearchParams(location.hash.slice(1));
  if (hash.has('range')) $('range').value = hash.get('range');
  if (!hash.has('agent')) return;
  state.agent = hash.get('agent');
  if (hash.has('stat_key')) {
    state.series = { agent: state.agent, object_id: Number(hash.get('object')), stat_key: hash.get('stat_key'),
                     stat_item: Number(hash.get('stat_item')) };
  }
}

$('range').addEventListener('change', () => {
  remember();
  refresh();
});
recall();
refresh();
setInterval(refresh, POLL_MS);
