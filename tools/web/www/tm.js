// The traffic meter page. Every figure comes from tm.cgi as kvard published it;
// nothing here works out a figure of the meter. Settings are checked by tm.cgi
// (tmctl's rules), never here, so the page and the command line cannot disagree.
'use strict';
(function () {
  var meta = document.querySelector('meta[name="tm-cgi"]');
  var CGI = meta ? meta.content : '/cgi-bin/tm.cgi';
  // ?refresh=N refreshes every N seconds instead of every minute (tests, demos).
  var asked = Number(new URLSearchParams(location.search).get('refresh'));
  var refreshSeconds = asked > 0 ? asked : 60;
  var STATES = { 0: 'ok', 1: 'warn', 3: 'limit', 4: 'down' };
  var SVG = 'http://www.w3.org/2000/svg';
  var CHART_DAYS = 31;
  var token = '';
  var drawn = { stats: false, chart: false };

  function $(id) { return document.getElementById(id); }
  // Only a change is written, so that a refresh does not make screen readers repeat the status.
  function text(id, s) { if ($(id).textContent !== s) $(id).textContent = s; }

  function call(method, path, body) {
    var opt = { method: method, cache: 'no-store', credentials: 'same-origin', headers: {} };
    if (method === 'POST') {
      opt.headers['Content-Type'] = 'application/x-www-form-urlencoded';
      opt.headers['X-TM-Token'] = token;
      opt.body = body || '';
    }
    return fetch(CGI + path, opt).then(function (res) {
      return res.json().catch(function () { return null; }).then(function (doc) {
        return { status: res.status, doc: doc || {} };
      });
    });
  }

  function notice(msg) {
    $('notice').hidden = !msg;
    text('notice', msg || '');
  }

  // The first time both the figures and the chart are on screen: the page's
  // first render, read by the tests through the Performance API.
  function markDrawn(what) {
    if (drawn.stats && drawn.chart) return;
    drawn[what] = true;
    if (drawn.stats && drawn.chart) {
      performance.mark('tm-first-render');
      document.documentElement.setAttribute('data-rendered', '1');
    }
  }

  function hoursMinutes(minutes) {
    var m = minutes % 60;
    return Math.floor(minutes / 60) + ':' + (m < 10 ? '0' : '') + m;
  }

  function drawStats(s) {
    var p = s.published || {};
    var state = STATES[s.status.code] || 'unknown';
    $('status').className = 'status st-' + state;
    text('status-words', s.status.words);
    var L = s.limit;
    var detail = !L.enabled ? 'Metering is off: the figures stand still.'
      : L.type === 'none' ? 'No limit is set.'
      : 'Limit: ' + L.limit + (L.unit === 'MB' ? ' MB' : ' hours') + ' a month (' + L.type + ')'
        + (L.warning !== null ? ', warning at ' + L.warning + (L.unit === 'MB' ? ' MB' : ' hours') : '') + '.';
    var since = state === 'warn' ? s.warningTime : (state === 'limit' || state === 'down') ? s.limitedTime : null;
    if (since) detail += (state === 'warn' ? ' Warning' : ' Limit reached') + ' since ' + since.local + '.';
    text('status-detail', detail);

    document.body.className = 'st-' + state;
    var used, limit, usage;
    if (L.enabled && L.unit === 'MB') {
      used = L.usedMB || 0; limit = L.limitMB || 0;
      usage = used + ' of ' + limit + ' MB ' + (L.type === 'download' ? 'downloaded' : 'used');
    } else if (L.enabled && L.unit === 'hours') {
      used = (L.usedMinutes || 0) / 60; limit = L.limitHours || 0;
      usage = (p.connTimeUsed || '') + ' of ' + limit + ' hours connected';
    } else {
      usage = (p.thismonth_total || '0.00') + ' MB used';
    }
    text('usage-text', usage);
    var bar = $('bar');
    bar.hidden = limit === undefined;
    if (limit !== undefined) {
      var share = limit > 0 ? Math.min(1, used / limit) : (used > 0 ? 1 : 0);
      $('bar-fill').style.width = (share * 100).toFixed(1) + '%';
      bar.setAttribute('aria-valuenow', (share * 100).toFixed(1));
      bar.setAttribute('aria-valuetext', usage);
      var mark = $('bar-mark');
      mark.hidden = !(L.warning !== null && limit > 0 && L.warning < limit);
      if (!mark.hidden) mark.style.left = (L.warning / limit * 100).toFixed(2) + '%';
    }
    var left = '', units = '';
    if (L.enabled && L.type !== 'none' && s.left.kind === 'volume' && s.left.text !== null) {
      left = s.left.text.trim() + ' left';
      units = ' (K = 1024 bytes, M = 1024 K, G = 1024 M)';
    } else if (L.enabled && s.left.kind === 'time' && s.left.minutes !== null) {
      left = hoursMinutes(s.left.minutes) + ' hours left';
    }
    text('left-text', left);
    text('left-units', units);
    text('period-start', s.start ? s.start.local : 'not published');
    text('next-reset', s.nextReset ? s.nextReset.local : 'not known yet');
    text('period-day', s.passedDays !== null && s.periodDays !== null
      ? 'day ' + s.passedDays + ' of ' + s.periodDays : '');
    text('as-of', s.current ? s.current.local : 'not published');

    var cells = document.querySelectorAll('td[data-f]');
    for (var i = 0; i < cells.length; i++) {
      var v = p[cells[i].getAttribute('data-f')];
      cells[i].textContent = v === null || v === undefined ? '\u2013' : v;
    }
    markDrawn('stats');
  }

  function el(name, attrs, parent) {
    var e = document.createElementNS(SVG, name);
    for (var k in attrs) e.setAttribute(k, attrs[k]);
    if (parent) parent.appendChild(e);
    return e;
  }

  // The step between grid lines: 1, 2 or 5 times a power of ten, in MB.
  function gridStep(mb) {
    if (mb <= 0) return 1;
    var power = Math.pow(10, Math.floor(Math.log10(mb)));
    return [1, 2, 5, 10].map(function (f) { return f * power; }).filter(function (v) { return v >= mb; })[0];
  }

  var lastHistory = null;
  function drawChart(h) {
    lastHistory = h;
    var svg = $('chart');
    while (svg.lastChild && svg.lastChild.nodeName !== 'desc') svg.removeChild(svg.lastChild);
    var rows = h.rows.slice(-CHART_DAYS);
    // Drawn at the width it has on screen, so the labels keep their size on a phone.
    var W = Math.max(300, Math.round(svg.getBoundingClientRect().width) || 640), H = 240;
    svg.setAttribute('viewBox', '0 0 ' + W + ' ' + H);
    var left = 44, right = 4, top = 18, bottom = 22;
    var plotW = W - left - right, plotH = H - top - bottom;
    var maxBytes = 0;
    rows.forEach(function (r) { maxBytes = Math.max(maxBytes, r.download + r.upload); });
    var step = gridStep(maxBytes / 1e6 / 4), lines = Math.max(1, Math.ceil(maxBytes / 1e6 / step));
    var perByte = plotH / (lines * step * 1e6);
    for (var g = 0; g <= lines; g++) {
      var y = top + plotH - plotH * g / lines;
      el('line', { x1: left, x2: W - right, y1: y, y2: y, 'class': 'grid' }, svg);
      el('text', { x: left - 4, y: y + 4, 'text-anchor': 'end' }, svg).textContent = String(Number((step * g).toPrecision(6)));
    }
    el('text', { x: 2, y: 10 }, svg).textContent = 'MB';
    var slot = plotW / Math.max(rows.length, 1), bw = slot * 0.72;
    var biggest = null;
    rows.forEach(function (r, i) {
      var x = left + i * slot + (slot - bw) / 2;
      var hd = r.download * perByte, hu = r.upload * perByte;
      var day = el('g', { 'class': 'day', 'data-start': r.start, 'data-local': r.start_local.slice(0, 10) }, svg);
      el('title', {}, day).textContent = r.start_local.slice(0, 10) + ': ' + (r.download / 1e6).toFixed(2)
        + ' MB download, ' + (r.upload / 1e6).toFixed(2) + ' MB upload';
      el('rect', { 'class': 'dl', x: x, width: bw, y: top + plotH - hd, height: hd }, day);
      el('rect', { 'class': 'ul', x: x, width: bw, y: top + plotH - hd - hu, height: hu }, day);
      if ((rows.length - 1 - i) % 5 === 0) {
        el('text', { x: x + bw / 2, y: H - 6, 'text-anchor': 'middle' }, svg).textContent = String(Number(r.start_local.slice(8, 10)));
      }
      if (!biggest || r.download + r.upload > biggest.download + biggest.upload) biggest = r;
      if (h.period_start >= r.start && h.period_start < r.end) {
        var xs = left + (i + (h.period_start - r.start) / (r.end - r.start)) * slot;
        el('line', { x1: xs, x2: xs, y1: top, y2: top + plotH, 'class': 'start' }, svg);
      }
    });
    $('chart-period').hidden = !svg.querySelector('.start');
    text('chart-desc', rows.length ? 'Daily download and upload from ' + rows[0].start_local.slice(0, 10)
      + ' to ' + rows[rows.length - 1].start_local.slice(0, 10) + '; the most on ' + biggest.start_local.slice(0, 10)
      + ', ' + ((biggest.download + biggest.upload) / 1e6).toFixed(2) + ' MB.' : 'No history yet.');
    markDrawn('chart');
  }

  function refresh() {
    var stats = call('GET', '/stats').then(function (r) {
      if (r.status !== 200) throw new Error(r.doc.error || 'the figures are not available (HTTP ' + r.status + ')');
      drawStats(r.doc);
    });
    var history = call('GET', '/history').then(function (r) {
      if (r.status !== 200) throw new Error(r.doc.error || 'the history is not available (HTTP ' + r.status + ')');
      drawChart(r.doc);
    });
    return Promise.all([stats, history]).then(function () {
      notice('');
      var n = Number(document.documentElement.getAttribute('data-refreshes') || 0) + 1;
      document.documentElement.setAttribute('data-refreshes', String(n));
    }).catch(function (e) {
      notice('Could not update the figures: ' + (e.message || e) + '. Trying again shortly.');
    });
  }

  // ---- settings ----
  var form = $('config');

  function inputs() { return form.querySelectorAll('input[name], select[name]'); }
  function valueOf(input) { return input.type === 'checkbox' ? (input.checked ? 'true' : 'false') : input.value.trim(); }

  function setValue(input, v) {
    if (input.type === 'checkbox') { input.checked = v === 'true'; return; }
    if (input.tagName === 'SELECT' && v !== '' && !Array.prototype.some.call(input.options, function (o) { return o.value === v; })) {
      // A wording of another writer: kept as it stands unless the user picks another.
      var o = document.createElement('option');
      o.value = v; o.textContent = v;
      input.appendChild(o);
    }
    input.value = v;
  }

  function fillForm(c) {
    Array.prototype.forEach.call(inputs(), function (input) {
      var f = c.fields[input.name], v, hint;
      if (input.name === 'reset-time') {
        v = c.reset.time;
        hint = c.fields.hour.meaning;
      } else if (f) {
        v = f.value === null ? '' : f.value;
        hint = f.meaning + (f.problem ? ' \u2013 stored value refused: ' + f.problem : '');
      } else return;
      setValue(input, v);
      input.setAttribute('data-initial', valueOf(input));
      var h = $('h-' + input.name);
      if (h) h.textContent = hint;
    });
  }

  function loadConfig() {
    return call('GET', '/config').then(function (r) {
      if (r.status !== 200) throw new Error(r.doc.error || 'HTTP ' + r.status);
      fillForm(r.doc);
    }).catch(function (e) {
      result('form-result', 'The settings could not be read: ' + (e.message || e), 'bad');
    });
  }

  function result(id, msg, kind) {
    var p = $(id);
    p.textContent = msg;
    p.className = 'result' + (kind ? ' ' + kind : '');
  }

  function clearErrors() {
    Array.prototype.forEach.call(inputs(), function (input) {
      input.removeAttribute('aria-invalid');
      var e = $('e-' + input.name);
      if (e) e.textContent = '';
    });
    text('form-errors', '');
  }

  // An error names a field or an alias ("mark (from warn=5GB)" names both).
  function inputFor(field) {
    var names = String(field).split(/[\s(=)]+/);
    var all = inputs();
    for (var n = 0; n < names.length; n++) {
      for (var i = 0; i < all.length; i++) {
        var own = [all[i].name].concat((all[i].getAttribute('data-names') || '').split(' '));
        if (names[n] && own.indexOf(names[n]) >= 0) return all[i];
      }
    }
    return null;
  }

  function showErrors(errors) {
    var loose = [];
    errors.forEach(function (e) {
      var input = inputFor(e.field);
      var msg = e.value !== undefined && e.message.indexOf("'" + e.value + "'") < 0 ? "'" + e.value + "' " + e.message : e.message;
      if (!input) { loose.push(e.field + ': ' + msg); return; }
      input.setAttribute('aria-invalid', 'true');
      var box = $('e-' + input.name);
      box.textContent = (box.textContent ? box.textContent + ' ' : '') + msg;
    });
    text('form-errors', loose.join(' '));
    var first = form.querySelector('[aria-invalid="true"]');
    if (first) first.focus();
  }

  form.addEventListener('submit', function (ev) {
    ev.preventDefault();
    clearErrors();
    var body = new URLSearchParams();
    Array.prototype.forEach.call(inputs(), function (input) {
      var v = valueOf(input);
      if (v !== input.getAttribute('data-initial')) body.append(input.name, v);
    });
    if (!body.toString()) { result('form-result', 'Nothing has changed.'); return; }
    $('save').disabled = true;
    result('form-result', 'Saving\u2026');
    call('POST', '/config', body.toString()).then(function (r) {
      var d = r.doc;
      if (r.status === 200) {
        var changes = (d.changes || []).map(function (c) { return c.field + ' ' + c.old + ' \u2192 ' + c.new; }).join(', ');
        result('form-result', (d.applied ? 'Saved and in force' : 'Saved, not yet in force')
          + (changes ? ' (' + changes + ')' : '') + '. ' + (d.message || ''), d.applied ? '' : 'half');
        return loadConfig().then(refresh);
      }
      if (r.status === 422 && d.errors) {
        showErrors(d.errors);
        result('form-result', d.message || 'Nothing was saved.', 'bad');
        return;
      }
      // A refusal (4xx) writes nothing; after any other answer the page cannot tell.
      result('form-result', (r.status < 500 ? 'Not saved: ' : 'Not confirmed: ')
        + (d.error || d.message || 'HTTP ' + r.status), 'bad');
    }).catch(function (e) {
      result('form-result', 'Not confirmed: the router did not answer (' + (e.message || e) + ').', 'bad');
    }).then(function () { $('save').disabled = false; });
  });

  $('undo').addEventListener('click', function () {
    clearErrors();
    result('form-result', '');
    Array.prototype.forEach.call(inputs(), function (input) { setValue(input, input.getAttribute('data-initial') || ''); });
  });

  // ---- reset ----
  var dialog = $('reset-dialog');
  $('reset').addEventListener('click', function () {
    result('reset-result', '');
    dialog.returnValue = '';
    dialog.showModal();
  });
  dialog.addEventListener('close', function () {
    $('reset').focus();
    if (dialog.returnValue !== 'reset') return;
    result('reset-result', 'Resetting\u2026');
    call('POST', '/reset').then(function (r) {
      var d = r.doc;
      var why = d.error || d.message || 'HTTP ' + r.status;
      // kvard acts on a request it has not answered yet once it runs again, so a
      // missing answer is no proof that nothing was reset; only a refusal is.
      if (r.status === 200 && d.ok) result('reset-result', 'Reset done: ' + why);
      else result('reset-result', (r.status >= 400 && r.status < 500 ? 'Reset refused: ' : 'Reset not confirmed: ') + why, 'bad');
      return refresh();
    }).catch(function (e) {
      result('reset-result', 'Reset not confirmed: the router did not answer (' + (e.message || e) + ').', 'bad');
    });
  });

  text('refresh-note', refreshSeconds === 60 ? 'The figures refresh every minute.'
    : 'The figures refresh every ' + refreshSeconds + ' seconds.');
  call('GET', '/session').then(function (r) { token = r.doc.token || ''; }).catch(function () {});
  refresh();
  loadConfig();
  setInterval(refresh, refreshSeconds * 1000);
  var resizing = 0;
  window.addEventListener('resize', function () {
    clearTimeout(resizing);
    resizing = setTimeout(function () { if (lastHistory) drawChart(lastHistory); }, 150);
  });
})();
