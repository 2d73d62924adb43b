// The dev service's console: pairing codes, the paired devices and their state, and tool calls
// sent through the agent API, all from this page. Everything a device sends (names, results)
// reaches the page as text nodes only, never as markup.
'use strict';

(() => {
  const pollInterval = 2000;
  const historyLength = 20;
  const soonSeconds = 60;

  const methods = [
    {
      name: 'local_list_files',
      title: 'List',
      hint: 'Lists a folder. An empty path lists the shared folders themselves.',
      template: () => ({ path: state.folder ?? '' }),
    },
    {
      name: 'local_read_file',
      title: 'Read',
      hint: 'Reads a text file: the first 100000 characters, and whether there was more.',
      template: () => ({ path: `${state.folder ?? 'Documents'}/notes.txt` }),
    },
    {
      name: 'local_search_files',
      title: 'Search',
      hint: 'Finds files by name: a fragment, or a wildcard with * ? [. At most 100 results.',
      template: () => ({ query: '*.txt', max_results: 25 }),
    },
    {
      name: 'local_write_file',
      title: 'Write',
      hint: 'Writes a file from content (text) or content_base64. The device may ask its user first.',
      template: () => ({
        path: `${state.folder ?? 'Documents'}/from-console.txt`,
        content: 'Written from the dev service console.\n',
      }),
    },
  ];

  const httpTitles = {
    400: 'Bad request',
    404: 'Unknown device',
    409: 'Device offline',
    502: 'Connection lost',
    504: 'Timed out',
  };

  const state = {
    devices: [],
    devicesSignature: '',
    devicesUpdated: 0,
    serviceUp: null,
    serviceDownSince: 0,
    targetId: '',
    userChoseTarget: false,
    method: methods[0].name,
    drafts: new Map(),
    folder: null,
    code: null,
    codeExpires: 0,
    codeLifetime: 0,
    call: null,
    history: [],
    shown: null,
  };

  const $ = (id) => document.getElementById(id);

  function element(tag, className, text) {
    const node = document.createElement(tag);
    if (className) {
      node.className = className;
    }
    if (text !== undefined) {
      node.textContent = text;
    }
    return node;
  }

  function plural(count, one, many) {
    return `${count} ${count === 1 ? one : many}`;
  }

  function formatDuration(ms) {
    if (ms < 1000) {
      return `${Math.max(0, Math.round(ms))} ms`;
    }
    return `${(ms / 1000).toFixed(ms < 10000 ? 2 : 1)} s`;
  }

  function formatClock(date) {
    return date.toLocaleTimeString([], {
      hour: '2-digit',
      minute: '2-digit',
      second: '2-digit',
      hourCycle: 'h23',
    });
  }

  function formatCountdown(seconds) {
    const h = Math.floor(seconds / 3600);
    const m = Math.floor((seconds % 3600) / 60);
    const s = String(seconds % 60).padStart(2, '0');
    return h > 0 ? `${h}:${String(m).padStart(2, '0')}:${s}` : `${m}:${s}`;
  }

  async function readBody(response) {
    const text = await response.text();
    try {
      return { text, json: JSON.parse(text) };
    } catch {
      return { text, json: undefined };
    }
  }

  function errorText(body, response) {
    if (body.json && typeof body.json.error === 'string') {
      return body.json.error;
    }
    return body.text.trim() || `HTTP ${response.status} ${response.statusText}`;
  }

  // ---- Service state (the top bar) ---------------------------------------------------------

  function setServiceUp(up) {
    if (state.serviceUp === up) {
      return;
    }
    state.serviceUp = up;
    const box = $('service-state');
    box.dataset.state = up ? 'up' : 'down';
    document.body.dataset.service = up ? 'up' : 'down';
    $('service-text').textContent = up ? 'Connected' : 'Service not answering';
    $('service-host').textContent = location.host;
    if (!up) {
      state.serviceDownSince = Date.now();
    }
  }

  // ---- Pairing codes -----------------------------------------------------------------------

  async function generateCode() {
    const button = $('generate-code');
    button.disabled = true;
    try {
      const response = await fetch('/api/v1/agent/pairing-codes', {
        method: 'POST',
        headers: { 'Content-Type': 'application/json' },
        body: JSON.stringify({ ttl_seconds: Number($('code-ttl').value) }),
      });
      const body = await readBody(response);
      if (!response.ok || !body.json || typeof body.json.code !== 'string') {
        throw new Error(errorText(body, response));
      }
      state.code = body.json.code;
      state.codeLifetime = Number(body.json.expires_in) || 0;
      state.codeExpires = Date.now() + state.codeLifetime * 1000;
      $('pairing-code').textContent = state.code;
      $('copy-code').disabled = false;
      $('pair-command').textContent =
        `QUILLMAR_API=${location.origin} quillmar-companion pair ${state.code}`;
      tickCode();
    } catch (error) {
      state.code = null;
      $('code-box').dataset.state = 'error';
      $('pairing-code').textContent = '········';
      $('code-expiry').textContent = `Could not get a code: ${error.message}`;
      $('code-meter').style.width = '0';
      $('copy-code').disabled = true;
    } finally {
      button.disabled = false;
    }
  }

  function tickCode() {
    if (!state.code) {
      return;
    }
    const box = $('code-box');
    const remaining = Math.max(0, Math.ceil((state.codeExpires - Date.now()) / 1000));
    if (remaining === 0) {
      box.dataset.state = 'expired';
      $('code-expiry').textContent = 'Expired. Generate a new code.';
      $('code-meter').style.width = '0';
      $('copy-code').disabled = true;
      return;
    }
    box.dataset.state = remaining <= soonSeconds ? 'soon' : 'live';
    $('code-expiry').textContent = `Expires in ${formatCountdown(remaining)}`;
    const share = state.codeLifetime > 0 ? remaining / state.codeLifetime : 0;
    $('code-meter').style.width = `${Math.min(100, share * 100).toFixed(2)}%`;
  }

  async function copyText(text, button) {
    const label = button.textContent;
    try {
      await navigator.clipboard.writeText(text);
      button.textContent = 'Copied';
    } catch {
      button.textContent = 'Copy failed';
    }
    setTimeout(() => {
      button.textContent = label;
    }, 1400);
  }

  // ---- Devices -----------------------------------------------------------------------------

  async function refreshDevices() {
    try {
      const response = await fetch('/api/v1/agent/devices', { cache: 'no-store' });
      const body = await readBody(response);
      if (!response.ok || !body.json || !Array.isArray(body.json.devices)) {
        throw new Error(errorText(body, response));
      }
      state.devices = body.json.devices.filter(
        (device) => device && typeof device.device_id === 'string',
      );
      state.devicesUpdated = Date.now();
      setServiceUp(true);
      renderDevices();
    } catch {
      setServiceUp(false);
    } finally {
      tickDevices();
      setTimeout(refreshDevices, pollInterval);
    }
  }

  function deviceName(device) {
    return typeof device.device_name === 'string' && device.device_name !== ''
      ? device.device_name
      : '(unnamed device)';
  }

  function chooseTarget() {
    const known = state.devices.some((device) => device.device_id === state.targetId);
    if (state.userChoseTarget && known) {
      return;
    }
    // Until someone picks a device, follow the first one that is online.
    const online = state.devices.find((device) => device.online === true);
    const pick = online ?? (known ? null : state.devices[0]);
    if (pick) {
      state.targetId = pick.device_id;
    } else if (!known) {
      state.targetId = '';
    }
  }

  function renderDevices() {
    chooseTarget();
    const signature = JSON.stringify([state.devices, state.targetId]);
    if (signature === state.devicesSignature) {
      return;
    }
    state.devicesSignature = signature;

    const list = $('device-list');
    const focusedId = document.activeElement?.closest?.('.device')?.dataset.deviceId;
    list.replaceChildren();
    for (const device of state.devices) {
      const online = device.online === true;
      const name = deviceName(device);
      const button = element('button', 'device');
      button.type = 'button';
      button.dataset.deviceId = device.device_id;
      button.dataset.online = String(online);
      button.setAttribute('aria-pressed', String(device.device_id === state.targetId));
      button.title = `Send calls to ${name}`;

      const text = element('span', 'device-text');
      text.append(element('span', 'device-name', name));
      const meta = element('span', 'device-meta');
      if (typeof device.platform === 'string' && device.platform !== '') {
        meta.append(`${device.platform} · `);
      }
      meta.append(element('span', 'mono', device.device_id));
      text.append(meta);

      button.append(
        element('span', 'dot'),
        text,
        element('span', 'state-pill', online ? 'Online' : 'Offline'),
      );
      button.addEventListener('click', () => selectTarget(device.device_id));
      const item = element('li');
      item.append(button);
      list.append(item);
      if (device.device_id === focusedId) {
        button.focus();
      }
    }

    const online = state.devices.filter((device) => device.online === true).length;
    $('device-count').textContent =
      state.devices.length === 0 ? '' : `${online} of ${state.devices.length} online`;
    $('devices-empty').hidden = state.devices.length > 0;
    renderTargetSelect();
  }

  function renderTargetSelect() {
    const select = $('call-device');
    select.replaceChildren();
    if (state.devices.length === 0) {
      const option = element('option', '', 'No paired device');
      option.value = '';
      option.disabled = true;
      option.selected = true;
      select.append(option);
    }
    for (const device of state.devices) {
      const label = `${deviceName(device)} — ${device.online === true ? 'online' : 'offline'}`;
      const option = element('option', '', label);
      option.value = device.device_id;
      option.selected = device.device_id === state.targetId;
      select.append(option);
    }
    renderTargetWarning();
  }

  function renderTargetWarning() {
    const target = state.devices.find((device) => device.device_id === state.targetId);
    const warning = $('device-warning');
    if (target && target.online !== true) {
      warning.textContent = 'This device is offline: the service will refuse the call.';
      warning.hidden = false;
    } else {
      warning.hidden = true;
    }
  }

  function selectTarget(deviceId) {
    state.targetId = deviceId;
    state.userChoseTarget = true;
    state.devicesSignature = '';
    renderDevices();
  }

  function tickDevices() {
    const foot = $('devices-updated');
    if (state.serviceUp === false) {
      foot.textContent = `The service stopped answering at ${formatClock(
        new Date(state.serviceDownSince),
      )}. Retrying every ${pollInterval / 1000} s.`;
      return;
    }
    if (!state.devicesUpdated) {
      return;
    }
    const seconds = Math.floor((Date.now() - state.devicesUpdated) / 1000);
    foot.textContent = `Updated ${seconds < 1 ? 'just now' : `${seconds} s ago`} · refreshes every ${
      pollInterval / 1000
    } s`;
  }

  // ---- The call form -----------------------------------------------------------------------

  function methodInfo(name) {
    return methods.find((method) => method.name === name) ?? methods[0];
  }

  function templateText(name) {
    return JSON.stringify(methodInfo(name).template(), null, 2);
  }

  function renderMethods() {
    const group = $('call-methods');
    for (const method of methods) {
      const label = element('label');
      const input = element('input');
      input.type = 'radio';
      input.name = 'method';
      input.value = method.name;
      input.checked = method.name === state.method;
      input.addEventListener('change', () => chooseMethod(method.name));
      label.append(
        input,
        element('span', 'method-title', method.title),
        element('span', 'method-name', method.name),
      );
      group.append(label);
    }
    showMethod();
  }

  function chooseMethod(name) {
    state.method = name;
    showMethod();
  }

  function showMethod() {
    $('method-hint').textContent = methodInfo(state.method).hint;
    $('call-params').value = state.drafts.get(state.method) ?? templateText(state.method);
    checkParams();
  }

  // Templates name a real folder once a result has shown one.
  function learnFolder(entry) {
    const result = entry.json?.ok === true ? entry.json.result : undefined;
    if (!result || typeof result !== 'object') {
      return;
    }
    let folder = null;
    if (typeof result.path === 'string' && result.path !== '') {
      folder = result.path.split('/')[0];
    } else if (entry.method === 'local_list_files' && Array.isArray(result.items)) {
      folder = result.items.find((item) => typeof item?.name === 'string')?.name ?? null;
    }
    if (folder && folder !== state.folder) {
      state.folder = folder;
      if (!state.drafts.has(state.method)) {
        showMethod();
      }
    }
  }

  // The parameters as they will be sent: { ok, value } where an empty box sends none.
  function parseParams() {
    const text = $('call-params').value;
    if (text.trim() === '') {
      return { ok: true, value: undefined, note: 'Empty: no params are sent' };
    }
    try {
      const value = JSON.parse(text);
      const isObject = value !== null && typeof value === 'object' && !Array.isArray(value);
      return { ok: true, value, note: isObject ? 'Valid JSON' : 'Valid JSON, but not an object' };
    } catch (error) {
      return { ok: false, error: error.message };
    }
  }

  function checkParams() {
    const parsed = parseParams();
    const status = $('params-state');
    const box = $('call-params');
    status.dataset.state = parsed.ok ? 'ok' : 'bad';
    status.textContent = parsed.ok ? parsed.note : `Not valid JSON: ${parsed.error}`;
    box.setAttribute('aria-invalid', String(!parsed.ok));
    return parsed;
  }

  function formatParams() {
    const parsed = checkParams();
    if (parsed.ok && parsed.value !== undefined) {
      $('call-params').value = JSON.stringify(parsed.value, null, 2);
      state.drafts.set(state.method, $('call-params').value);
    }
  }

  function resetParams() {
    state.drafts.delete(state.method);
    showMethod();
    $('call-params').focus();
  }

  function readTimeout() {
    const input = $('call-timeout');
    const value = Number(input.value);
    if (!Number.isInteger(value) || value < 1 || value > 600000) {
      input.setCustomValidity('A whole number of milliseconds from 1 to 600000.');
      input.reportValidity();
      return null;
    }
    input.setCustomValidity('');
    return value;
  }

  async function sendCall() {
    if (state.call) {
      return;
    }
    const deviceId = $('call-device').value;
    if (!deviceId) {
      showProblem('No device', 'Pair a device first, then choose it here.');
      return;
    }
    const params = checkParams();
    if (!params.ok) {
      $('call-params').focus();
      return;
    }
    const timeout = readTimeout();
    if (timeout === null) {
      return;
    }
    const request = { method: state.method, timeout_ms: timeout };
    if (params.value !== undefined) {
      request.params = params.value;
    }
    const device = state.devices.find((candidate) => candidate.device_id === deviceId);
    const entry = {
      method: state.method,
      deviceId,
      deviceName: device ? deviceName(device) : deviceId,
      at: new Date(),
    };

    const controller = new AbortController();
    const started = performance.now();
    state.call = { controller, started };
    showPending(entry);
    try {
      const response = await fetch(`/api/v1/agent/devices/${encodeURIComponent(deviceId)}/calls`, {
        method: 'POST',
        headers: { 'Content-Type': 'application/json' },
        body: JSON.stringify(request),
        signal: controller.signal,
      });
      const body = await readBody(response);
      entry.ms = performance.now() - started;
      entry.status = response.status;
      entry.statusText = response.statusText;
      entry.text = body.text;
      entry.json = body.json;
    } catch (error) {
      entry.ms = performance.now() - started;
      entry.status = 0;
      entry.failure =
        error.name === 'AbortError'
          ? 'Cancelled here. The device may still carry the call out.'
          : `The service did not answer: ${error.message}`;
    } finally {
      state.call = null;
      setSending(false);
    }
    classify(entry);
    learnFolder(entry);
    state.history.unshift(entry);
    state.history.length = Math.min(state.history.length, historyLength);
    showEntry(entry);
  }

  function cancelCall() {
    state.call?.controller.abort();
  }

  // ---- Results -----------------------------------------------------------------------------

  function classify(entry) {
    if (entry.status === 0) {
      entry.kind = 'error';
      entry.label = entry.failure.startsWith('Cancelled') ? 'cancelled' : 'no answer';
      entry.title = entry.label === 'cancelled' ? 'Cancelled' : 'Service unreachable';
      entry.message = entry.failure;
      return;
    }
    const frame = entry.json;
    if (entry.status === 200 && frame && typeof frame === 'object') {
      if (frame.ok === true) {
        entry.kind = 'ok';
        entry.label = 'ok';
        return;
      }
      entry.kind = 'error';
      entry.label = 'tool error';
      entry.title = 'The device answered with an error';
      entry.message =
        typeof frame.error === 'string' ? frame.error : 'The result frame has ok: false.';
      return;
    }
    entry.kind = 'error';
    entry.label = entry.status === 200 ? 'unreadable' : entry.status < 500 ? 'refused' : 'failed';
    entry.title = httpTitles[entry.status] ?? `HTTP ${entry.status}`;
    entry.message =
      frame && typeof frame.error === 'string'
        ? frame.error
        : entry.text?.trim() || 'The service sent no explanation.';
  }

  function summary(entry) {
    const result = entry.json?.result;
    if (entry.kind !== 'ok' || !result || typeof result !== 'object') {
      return '';
    }
    switch (entry.method) {
      case 'local_list_files':
        return `${plural(Number(result.count) || 0, 'item', 'items')} in ${
          result.path ? result.path : 'the shared folders'
        }`;
      case 'local_read_file':
        return `${result.path} · ${plural(
          typeof result.content === 'string' ? result.content.length : 0,
          'character',
          'characters',
        )}${result.truncated === true ? ', truncated' : ''}`;
      case 'local_search_files':
        return `${plural(Number(result.count) || 0, 'match', 'matches')} for “${result.query}”`;
      case 'local_write_file':
        return `Wrote ${plural(Number(result.bytes) || 0, 'byte', 'bytes')} to ${result.path}`;
      default:
        return '';
    }
  }

  function setSending(sending) {
    const button = $('send-call');
    button.disabled = sending;
    button.replaceChildren();
    if (sending) {
      button.append(element('span', 'spinner'), 'Sending…');
    } else {
      button.textContent = 'Send call';
    }
  }

  function describeCall(entry) {
    const line = $('result-call');
    line.replaceChildren(
      element('span', 'mono', entry.method),
      ' → ',
      entry.deviceName,
      ' · ',
      formatClock(entry.at),
    );
    line.hidden = false;
  }

  function showPending(entry) {
    setSending(true);
    const card = $('result');
    card.dataset.state = 'pending';
    describeCall(entry);
    const badge = $('result-status');
    badge.textContent = 'waiting';
    badge.dataset.kind = 'pending';
    badge.hidden = false;
    $('result-http').hidden = true;
    $('result-error').hidden = true;
    $('result-summary').hidden = true;
    $('copy-result').hidden = true;
    $('result-empty').hidden = true;
    tickPending();
  }

  function tickPending() {
    if (!state.call) {
      return;
    }
    const time = $('result-time');
    time.textContent = formatDuration(performance.now() - state.call.started);
    time.hidden = false;
  }

  function showProblem(title, message) {
    const alert = $('result-error');
    alert.replaceChildren(element('strong', '', title), message);
    alert.hidden = false;
    $('result-empty').hidden = true;
  }

  function showEntry(entry) {
    state.shown = entry;
    const card = $('result');
    card.dataset.state = entry.kind;
    describeCall(entry);

    const badge = $('result-status');
    badge.textContent = entry.label;
    badge.dataset.kind = entry.kind;
    badge.hidden = false;

    const http = $('result-http');
    http.textContent = entry.status
      ? `HTTP ${entry.status}${entry.status === 200 ? '' : ` ${entry.statusText}`}`.trim()
      : 'no HTTP answer';
    http.hidden = false;

    const time = $('result-time');
    time.textContent = formatDuration(entry.ms);
    time.title = 'Round trip: browser → service → device → service → browser';
    time.hidden = false;

    const alert = $('result-error');
    if (entry.kind === 'error') {
      alert.replaceChildren(element('strong', '', entry.title), entry.message);
      alert.hidden = false;
    } else {
      alert.hidden = true;
    }

    const summaryLine = $('result-summary');
    summaryLine.textContent = summary(entry);
    summaryLine.hidden = summaryLine.textContent === '';

    const body = $('result-body');
    if (entry.json !== undefined) {
      body.replaceChildren(renderJson(entry.json));
    } else {
      body.textContent = entry.text ?? '';
    }
    $('copy-result').hidden = body.textContent === '';
    $('result-empty').hidden = true;
    renderHistory();
  }

  // Pretty JSON as coloured text nodes; strings keep their JSON escapes.
  function renderJson(value) {
    const out = document.createDocumentFragment();
    const put = (text, className) => {
      out.append(className ? element('span', className, text) : text);
    };
    const walk = (node, depth) => {
      const indent = '  '.repeat(depth);
      if (node === null) {
        put('null', 'j-literal');
      } else if (Array.isArray(node)) {
        if (node.length === 0) {
          put('[]', 'j-punct');
          return;
        }
        put('[', 'j-punct');
        node.forEach((item, index) => {
          put(`\n${indent}  `);
          walk(item, depth + 1);
          if (index < node.length - 1) {
            put(',', 'j-punct');
          }
        });
        put(`\n${indent}`);
        put(']', 'j-punct');
      } else if (typeof node === 'object') {
        const keys = Object.keys(node);
        if (keys.length === 0) {
          put('{}', 'j-punct');
          return;
        }
        put('{', 'j-punct');
        keys.forEach((key, index) => {
          put(`\n${indent}  `);
          put(JSON.stringify(key), 'j-key');
          put(': ', 'j-punct');
          walk(node[key], depth + 1);
          if (index < keys.length - 1) {
            put(',', 'j-punct');
          }
        });
        put(`\n${indent}`);
        put('}', 'j-punct');
      } else if (typeof node === 'string') {
        put(JSON.stringify(node), 'j-string');
      } else if (typeof node === 'number') {
        put(String(node), 'j-number');
      } else {
        put(String(node), 'j-literal');
      }
    };
    walk(value, 0);
    return out;
  }

  function renderHistory() {
    const list = $('history-list');
    list.replaceChildren();
    for (const entry of state.history) {
      const button = element('button', 'history-item');
      button.type = 'button';
      if (entry === state.shown) {
        button.setAttribute('aria-current', 'true');
      }
      const outcome = element('span', 'outcome', entry.label);
      outcome.dataset.kind = entry.kind;
      button.append(
        element('span', 'when', formatClock(entry.at)),
        element('span', 'what', `${entry.method} → ${entry.deviceName}`),
        outcome,
        element('span', 'took', formatDuration(entry.ms)),
      );
      button.addEventListener('click', () => showEntry(entry));
      const item = element('li');
      item.append(button);
      list.append(item);
    }
    $('history-count').textContent = `(${state.history.length})`;
    $('history').hidden = state.history.length < 2;
  }

  // ---- Wiring ------------------------------------------------------------------------------

  function start() {
    renderMethods();
    renderTargetSelect();

    $('generate-code').addEventListener('click', generateCode);
    $('copy-code').addEventListener('click', (event) => {
      if (state.code) {
        copyText(state.code, event.currentTarget);
      }
    });
    $('copy-result').addEventListener('click', (event) => {
      if (state.shown) {
        const text =
          state.shown.json !== undefined
            ? JSON.stringify(state.shown.json, null, 2)
            : state.shown.text ?? '';
        copyText(text, event.currentTarget);
      }
    });
    $('call-device').addEventListener('change', (event) => selectTarget(event.target.value));
    $('call-params').addEventListener('input', () => {
      state.drafts.set(state.method, $('call-params').value);
      checkParams();
    });
    $('format-params').addEventListener('click', formatParams);
    $('reset-params').addEventListener('click', resetParams);
    $('call-timeout').addEventListener('input', (event) => event.target.setCustomValidity(''));
    $('call-form').addEventListener('submit', (event) => {
      event.preventDefault();
      sendCall();
    });
    document.addEventListener('keydown', (event) => {
      if (event.key === 'Enter' && (event.ctrlKey || event.metaKey)) {
        event.preventDefault();
        sendCall();
      } else if (event.key === 'Escape' && state.call) {
        event.preventDefault();
        cancelCall();
      }
    });

    setInterval(() => {
      tickCode();
      tickPending();
    }, 250);
    setInterval(tickDevices, 1000);
    refreshDevices();
  }

  start();
})();
