// Runs in every frame of the page, after the bridge's script and before any script of the page. It
// reports to the preview what only the page can see. It keeps the originals of all that it replaces,
// and changes no behaviour.
(function () {
  'use strict';
  const {postMessage} = webkit.messageHandlers.kelvaraPreview;
  const port = webkit.messageHandlers.kelvaraPreview;
  const isTop = window === window.top;
  const bridge = isTop ? window.mraid : null;
  const isViewable = bridge && bridge.isViewable;
  const {setTimeout, setInterval, clearTimeout, clearInterval, requestAnimationFrame} = window;
  const toText = JSON.stringify;

  const MOST = 300;
  const sent = {__proto__: null};
  function send(kind, message) {
    sent[kind] = (sent[kind] || 0) + 1;
    if (kind !== 'state' && sent[kind] > MOST) return;
    postMessage.call(port, toText({kind, ...message}));
  }

  // -----------------------------------------------------------------------------------------------
  // The console and failures.

  function text(value) {
    if (value instanceof Error) {
      const place = value.line ? ' (line ' + value.line + ')' : '';
      return value.name + ': ' + value.message + place;
    }
    if (typeof value !== 'object') return String(value);
    try { return toText(value); } catch (_) { return String(value); }
  }

  for (const level of ['debug', 'log', 'info', 'warn', 'error']) {
    const original = console[level];
    console[level] = function (...values) {
      send('console', {level, text: values.map(text).join(' ')});
      return original.apply(console, values);
    };
  }

  window.addEventListener('error', function (event) {
    if (event instanceof ErrorEvent) {
      send('error', {text: event.message + ' (line ' + event.lineno + ')'});
      return;
    }
    const {localName, currentSrc, src, href} = event.target;
    const address = event.target.getAttribute('src');
    // An ad without an icon or an end card leaves the address empty.
    if (address === '') return;
    send('file', {text: '<' + localName + '> ' + (address || currentSrc || src || href)});
  }, true);
  window.addEventListener('unhandledrejection', function (event) {
    send('error', {text: 'an unhandled rejection, ' + text(event.reason)});
  });
  document.addEventListener('securitypolicyviolation', function (event) {
    send('error', {text: 'the page\'s own policy blocks ' + (event.blockedURI || 'a script') +
                         ' by ' + event.effectiveDirective});
  });
  if (bridge) {
    bridge.addEventListener('error', function (message, action) {
      send('refused', {action: String(action), message: String(message)});
    });
  }

  // -----------------------------------------------------------------------------------------------
  // Sound before the ad is viewable.

  function listen(medium) {
    // Without metadata it is not known whether the medium has sound.
    const isAudible = !medium.paused && !medium.muted && medium.volume > 0 &&
        medium.readyState > 0 && (!medium.audioTracks || medium.audioTracks.length > 0);
    if (isAudible && isViewable && !isViewable()) send('sound', {text: '<' + medium.localName + '>'});
  }
  const EVENTS = ['play', 'playing', 'loadedmetadata', 'volumechange'];
  for (const name of EVENTS) {
    document.addEventListener(name, function (event) {
      if (event.target instanceof HTMLMediaElement) listen(event.target);
    }, true);
  }
  const watched = new WeakSet();
  const {play} = HTMLMediaElement.prototype;
  HTMLMediaElement.prototype.play = function () {
    if (!this.isConnected && !watched.has(this)) {
      watched.add(this);
      for (const name of EVENTS) this.addEventListener(name, () => listen(this));
    }
    return play.call(this);
  };
  if (window.AudioScheduledSourceNode) {
    const {start} = AudioScheduledSourceNode.prototype;
    AudioScheduledSourceNode.prototype.start = function (...when) {
      if (isViewable && !isViewable()) send('sound', {text: 'Web Audio'});
      return start.apply(this, when);
    };
  }

  if (!isTop) return;

  // -----------------------------------------------------------------------------------------------
  // Timers, frames and the state of MRAID.

  const waiting = new Set();
  const repeating = new Set();
  let framesAsked = 0;
  window.setTimeout = function (call, delay, ...values) {
    const id = setTimeout(function () {
      waiting.delete(id);
      if (typeof call === 'function') call.apply(window, values);
      else (0, eval)(String(call));
    }, delay);
    waiting.add(id);
    return id;
  };
  window.setInterval = function (...values) {
    const id = setInterval.apply(window, values);
    repeating.add(id);
    return id;
  };
  for (const [name, original] of [['clearTimeout', clearTimeout], ['clearInterval', clearInterval]]) {
    window[name] = function (id) {
      waiting.delete(id);
      repeating.delete(id);
      return original.call(window, id);
    };
  }
  window.requestAnimationFrame = function (call) {
    framesAsked += 1;
    return requestAnimationFrame.call(window, call);
  };

  // The time between two frames, seen at any moment while the ad is viewable: a pause weighs as much
  // as it is long, so that frames in quick succession do not make up for it.
  let milliseconds = 0, squares = 0, lastFrame = 0;
  requestAnimationFrame.call(window, function count(now) {
    if (!isViewable()) {
      lastFrame = 0;
    } else {
      const pause = lastFrame ? now - lastFrame : 0;
      milliseconds += pause;
      squares += pause * pause;
      lastFrame = now;
    }
    requestAnimationFrame.call(window, count);
  });

  function medium() {
    const video = document.querySelector('video');
    return video && {current: video.currentTime, duration: video.duration || 0,
                     paused: video.paused, muted: video.muted};
  }

  const getters = {...bridge};
  let lastState = '';
  function report() {
    const state = {
      state: getters.getState(),
      viewable: getters.isViewable(),
      currentPosition: getters.getCurrentPosition(),
      defaultPosition: getters.getDefaultPosition(),
      maxSize: getters.getMaxSize(),
      screenSize: getters.getScreenSize(),
      orientation: getters.getCurrentAppOrientation().orientation,
      timers: {waiting: waiting.size, repeating: repeating.size, framesAsked},
      video: medium()
    };
    if (squares > 0) state.framesPerSecond = 1000 * milliseconds / squares;
    const now = toText(state);
    if (now === lastState) return;
    lastState = now;
    send('state', state);
  }
  setInterval.call(window, report, 250);

  // -----------------------------------------------------------------------------------------------
  // Content under the controls. The preview passes the boxes that the SDK has given its controls.

  const CONTENT = 'a[href], button, input, select, textarea, [role=button], [onclick], img, video, ' +
                  'canvas, svg';

  function meets(rect, box) {
    return rect.width > 0 && rect.height > 0 && rect.left < box.x + box.width &&
           rect.right > box.x && rect.top < box.y + box.height && rect.bottom > box.y;
  }

  function isBackground(element) {
    const {width, height} = element.getBoundingClientRect();
    return width * height > 0.5 * window.innerWidth * window.innerHeight;
  }

  function isOpaque(element) {
    if (element.matches('img, video')) return true;
    const style = getComputedStyle(element);
    return style.backgroundImage !== 'none' ||
           /^rgb[(]/.test(style.backgroundColor);   // a translucent colour is written as rgba
  }

  // Whether something opaque is above the element in the middle of the part that meets the box. An
  // element that takes no input is not among those at a point, and then counts as visible.
  function isCovered(element, rect, box) {
    const x = (Math.max(rect.left, box.x) + Math.min(rect.right, box.x + box.width)) / 2;
    const y = (Math.max(rect.top, box.y) + Math.min(rect.bottom, box.y + box.height)) / 2;
    const stack = document.elementsFromPoint(x, y);
    const place = stack.indexOf(element);
    return stack.slice(0, Math.max(0, place)).some(function (above) {
      return !element.contains(above) && isOpaque(above);
    });
  }

  function textsOf(element) {
    const texts = [];
    for (const node of element.childNodes) {
      if (node.nodeType !== Node.TEXT_NODE || !node.data.trim()) continue;
      const range = document.createRange();
      range.selectNodeContents(node);
      const what = 'the text "' + node.data.trim().slice(0, 40) + '"';
      for (const rect of range.getClientRects()) texts.push({what, rect});
    }
    return texts;
  }

  function contentOf(element, box) {
    const parts = textsOf(element);
    if (element.matches(CONTENT) && !isBackground(element)) {
      const id = element.id ? ' id="' + element.id + '"' : '';
      parts.unshift({what: '<' + element.localName + id + '>',
                     rect: element.getBoundingClientRect()});
    }
    const part = parts.find(({rect}) => meets(rect, box) && !isCovered(element, rect, box));
    const isVisible = part &&
        element.checkVisibility({opacityProperty: true, visibilityProperty: true});
    return isVisible ? part.what : null;
  }

  function contentUnder(boxes) {
    const found = new Set();
    for (const element of document.body ? document.body.querySelectorAll('*') : []) {
      for (const box of boxes) {
        const content = contentOf(element, box);
        if (content) found.add(content + ' is under the control at the ' + box.corner);
      }
    }
    return [...found];
  }

  Object.defineProperty(window, 'kelvaraPreview', {value: Object.freeze({contentUnder, report})});
})();
