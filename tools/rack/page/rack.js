// The rack's page: shows the state and the log the program's event stream sends, and turns the
// switches and buttons into requests of its JSON API.
'use strict';

const $ = (selector) => document.querySelector(selector);
const kLines = 8;
const kLogShown = 300;
const kNoTimecode = '--:--:--:--';

function element(tag, className, text) {
  const made = document.createElement(tag);
  if (className) made.className = className;
  if (text !== undefined) made.textContent = text;
  return made;
}

function showError(message) {
  $('#error').textContent = message;
  $('#error').hidden = !message;
}

// Sends an action; the answer is the state it left, or an error to show.
async function act(path, fields) {
  try {
    const answer = await fetch(path, { method: 'POST', body: new URLSearchParams(fields) });
    const body = await answer.json();
    if (!answer.ok) return showError(body.error);
    showError('');
    showState(body);
  } catch (failure) {
    showError(`${path}: ${failure.message}`);
  }
}

function showPosition(server) {
  $('#timecode').textContent = server.timecode;
}

function showBoard(board) {
  $('#socket').textContent = board.socket + (board.fault === 'none' ? '' : ` (${board.fault})`);
  for (let line = 0; line < kLines; ++line) {
    const bit = 1 << line;
    const button = $(`.switch[data-line="${line}"]`);
    button.setAttribute('aria-pressed', String((board.switches & bit) !== 0));
    button.querySelector('.level').classList.toggle('on', (board.gpi & bit) !== 0);
    $(`.gpo[data-line="${line}"]`).classList.toggle('lit', (board.gpo & bit) !== 0);
  }
}

function showClips(clips, loaded) {
  const rows = clips.map((clip) => {
    const row = element('tr', clip.id === loaded ? 'loaded' : '');
    for (const text of [clip.id, clip.start, clip.length]) row.append(element('td', '', text));
    const load = element('button', '', 'Load');
    load.addEventListener('click', () => act('/api/load', { clip: clip.id }));
    const cell = element('td');
    cell.append(load);
    row.append(cell);
    return row;
  });
  $('#clips tbody').replaceChildren(...rows);
}

function showState(state) {
  const server = state.server;
  $('#links').textContent = state.links;
  $('#standard').textContent = `${server.standard} frames/s`;
  showPosition(server);
  for (const lamp of document.querySelectorAll('#server [data-lamp]')) {
    const name = lamp.dataset.lamp;
    lamp.classList.toggle('lit', name === server.state || server[name] === true);
  }
  const moving = ['jog', 'var', 'shuttle', 'fast_forward', 'rewind'].includes(server.state);
  $('#speed').textContent = [
    moving ? `${server.speed}x` : '',
    server.edit === 'none' ? '' : server.edit.replace('_', ' '),
  ].join(' ');
  $('#loaded').textContent = server.loaded || 'none';
  for (const point of ['in', 'out', 'audio_in', 'audio_out'])
    $(`#${point}`).textContent = server[point] ?? kNoTimecode;
  $('#faults').textContent = state.faults.length ? `armed: ${state.faults.join(', ')}` : '';
  $('#gpi-events').textContent = state.gpi_events
    ? 'frames on every link, GPI events on 127.0.0.1:42000'
    : 'frames on every link';
  showClips(state.clips, server.loaded);
  showBoard(state.board);
}

function addLog(entry) {
  const log = $('#log');
  const atEnd = log.scrollTop + log.clientHeight >= log.scrollHeight - 4;
  const row = element('li', entry.answer ? 'answer' : '');
  row.dataset.source = entry.source;
  row.append(
    element('span', 'time', `${entry.time}  `),
    element('span', 'source', entry.answer ? `${entry.source} \u2190` : entry.source),
    element('span', 'hex', entry.hex),
    element('span', 'text', entry.text ? `  ${entry.text}` : ''),
  );
  log.append(row);
  while (log.children.length > kLogShown) log.firstChild.remove();
  if (atEnd) log.scrollTop = log.scrollHeight;
}

function build() {
  for (let line = 0; line < kLines; ++line) {
    const button = element('button', 'switch', String(line));
    button.dataset.line = line;
    button.title = 'the dot: the level the last poll read';
    button.append(element('span', 'level'));
    button.addEventListener('click', (click) =>
      act('/api/gpi', { line, action: click.shiftKey ? 'pulse' : 'toggle' }),
    );
    $('#switches').append(button);
    const lamp = element('span', 'lamp gpo', String(line));
    lamp.dataset.line = line;
    $('#gpo').append(lamp);
  }
  for (const button of document.querySelectorAll('[data-local]'))
    button.addEventListener('click', () => act('/api/local', { local: button.dataset.local }));
  // A fault takes the value of its field's box: the error bits, the refusal's byte, the ms.
  for (const button of document.querySelectorAll('[data-fault]'))
    button.addEventListener('click', () => {
      const { fault, field } = button.dataset;
      act('/api/fault', field ? { kind: fault, [field]: $(`#fault-${field}`).value } : { kind: fault });
    });
}

// The stream sends the whole state and the log kept so far on every connection, then what
// changes; a page that loses the program shows it and takes everything again when it is back.
function connect() {
  const events = new EventSource('/api/events');
  events.addEventListener('open', () => {
    $('#log').replaceChildren();
    $('#live').classList.add('lit');
  });
  events.addEventListener('error', () => $('#live').classList.remove('lit'));
  events.addEventListener('state', (event) => showState(JSON.parse(event.data)));
  events.addEventListener('position', (event) => showPosition(JSON.parse(event.data)));
  events.addEventListener('log', (event) => addLog(JSON.parse(event.data)));
}

build();
connect();
