/*
 * The page side of Kelvara's MRAID bridge.
 *
 * The SDK injects this script into the ad's top frame at document start, before any script of
 * the ad, so a creative may use `mraid` at parse time and needs no script tag for it.
 *
 *   window.mraid        The creative's API: MRAID 3.0 with 2.0's methods, for an interstitial. The
 *                       bridge sends open and resize to the SDK. It stores orientation properties
 *                       without effect. Every other action only causes an `error` event that
 *                       names it.
 *   window.MRAID_ENV    The ad's host. It never holds an identifier.
 *   window.mraidbridge  The SDK's calls. Not for creatives.
 *   window.kelvara      The video events that Kelvara's own templates send to the SDK:
 *                         preloadComplete()               the creative can be shown
 *                         videoEvent(duration, current)   progress, in seconds
 *                         videoComplete()                 the video has ended
 *
 * mraid.addEventListener accepts two events beyond the standard's:
 *   videoMuted(isMuted)   the user switched the sound with the SDK's button
 *   skipTapped()          the user tapped the SDK's skip button; the creative decides what it means
 *
 * Leaving the ad: following a link (or window.open) to a web, tel:, sms: or mailto: address calls
 * mraid.open, so that no other page replaces the ad in its view. The link does nothing if the page
 * cancels the click or opens an address while it handles the click. Links into one of the page's
 * frames, within the page or to any other scheme work as usual. The SDK opens nothing before the
 * user has tapped the ad.
 *
 * The bridge delivers events in order, each after all listeners of the previous one have returned.
 * An error that a page's call causes is delivered after the call returns. `ready` and stateChange
 * are not repeated for a late creative, which calls getState() instead.
 *
 * Commands are navigations of hidden iframes to mraid: and kva:, which the SDK catches and blocks.
 * A page with a Content-Security-Policy must allow both in frame-src.
 */
(function () {
  'use strict';

  // The script runs again if the page loads it by a script tag or rewrites its document. The first
  // bridge has the state, so it stays.
  if (window.mraidbridge) return;

  // Saved before the page can replace them. The script calls no method of Array, so a page that
  // alters Array.prototype does not affect the delivery of events.
  const {apply} = Reflect;
  const {freeze, defineProperty} = Object;
  const createElement = document.createElement.bind(document);
  const encode = window.encodeURIComponent;
  const later = window.setTimeout.bind(window);
  const openWindow = window.open.bind(window);
  const Address = window.URL;
  const {isFinite} = Number;

  const VERSION = '3.0';
  window.MRAID_ENV = {version: VERSION, sdk: 'Kelvara', sdkVersion: '@PROJECT_VERSION@'};

  // ---------------------------------------------------------------------------------------------
  // Commands.

  // If the page's location is set twice in one turn, only the second navigation happens. So every
  // command gets its own iframe. A page may hold a thousand frames; commands beyond this limit wait.
  const FRAMES_AT_ONCE = 200;
  let commands = [];
  let nextCommand = 0;
  let framesInUse = 0;

  function send(url) {
    commands[commands.length] = url;
    sendWaiting();
  }

  function sendWaiting() {
    if (!document.documentElement) return;   // the observer below sends them
    while (nextCommand < commands.length && framesInUse < FRAMES_AT_ONCE) {
      nextCommand += 1;
      navigateFrame(commands[nextCommand - 1]);
    }
    if (nextCommand === commands.length) {
      commands = [];
      nextCommand = 0;
    }
  }

  function navigateFrame(url) {
    const frame = createElement('iframe');
    frame.style.setProperty('display', 'none', 'important');
    frame.src = url;
    framesInUse += 1;
    document.documentElement.appendChild(frame);
    later(function () {
      frame.remove();
      framesInUse -= 1;
      sendWaiting();
    }, 0);
  }

  // ---------------------------------------------------------------------------------------------
  // Events.

  // One list of {listener, removed, owed} per event. `owed` is true until the listener has got
  // a value. A list is replaced, never altered, so a running delivery keeps its list. `removed`
  // stops it from calling a listener that another listener has just removed.
  const listeners = {
    __proto__: null,
    ready: [], error: [], stateChange: [], sizeChange: [], viewableChange: [],
    exposureChange: [], audioVolumeChange: [], videoMuted: [], skipTapped: []
  };

  // Events whose current value a new listener gets once, soon after its registration.
  const presentValue = {
    __proto__: null,
    exposureChange: exposure,
    audioVolumeChange() { return [audioVolume]; }
  };

  let queue = [];
  let delivering = false;

  function emit(event, ...args) { enqueue({event, args, only: null}); }

  function enqueue(delivery) {
    queue[queue.length] = delivery;
    if (delivering) return;
    delivering = true;
    for (let i = 0; i < queue.length; i += 1) {
      deliver(queue[i]);
      queue[i] = null;
    }
    queue = [];
    delivering = false;
  }

  function deliver({event, args, only}) {
    const entries = listeners[event];
    for (let i = 0; i < entries.length; i += 1) {
      const entry = entries[i];
      if (entry.removed || (only && entry !== only)) continue;
      entry.owed = false;
      try {
        apply(entry.listener, mraid, args);
      } catch (error) {
        report(event, error);
      }
    }
  }

  function report(event, error) {
    try {
      console.error('mraid: a listener of ' + event + ' threw', error);
    } catch (_) {
      // The page may replace console.error. If it throws, the delivery must go on.
    }
  }

  function isEvent(action, event) {
    if (event in listeners) return true;
    fail(action, 'Unknown event: ' + event);
    return false;
  }

  function addEventListener(event, listener) {
    const name = String(event);
    if (!isEvent('addEventListener', name)) return;
    if (typeof listener !== 'function') {
      fail('addEventListener', 'The listener is not a function.');
      return;
    }
    const entry = {listener, removed: false, owed: name in presentValue};
    const entries = [];
    for (let i = 0; i < listeners[name].length; i += 1) {
      if (listeners[name][i].listener === listener) return;
      entries[i] = listeners[name][i];
    }
    entries[entries.length] = entry;
    listeners[name] = entries;
    if (!entry.owed) return;
    later(function () {
      if (entry.owed) enqueue({event: name, args: presentValue[name](), only: entry});
    }, 0);
  }

  function removeEventListener(event, listener) {
    const name = String(event);
    if (!isEvent('removeEventListener', name)) return;
    const kept = [];
    for (let i = 0; i < listeners[name].length; i += 1) {
      const entry = listeners[name][i];
      if (listener && entry.listener !== listener) kept[kept.length] = entry;
      else entry.removed = true;
    }
    listeners[name] = kept;
  }

  // Notifies the page that `action` failed, in a separate task: a creative may repeat the failed
  // call in its error listener, and that must not block the page.
  function fail(action, message) {
    later(function () { emit('error', message, action); }, 0);
  }

  function unsupported(action) {
    return function () { fail(action, action + ' is not supported.'); };
  }

  // ---------------------------------------------------------------------------------------------
  // State. Only the SDK changes it, before the listeners are called.

  let state = 'loading';
  let isReady = false;
  let viewable = false;
  let isMuted = null;       // null until the SDK sends it
  let audioVolume = null;   // percent; null while unknown
  let features = {__proto__: null, inlineVideo: true};   // until the SDK sends them
  let screenSize = {width: 0, height: 0};
  let maxSize = {width: 0, height: 0};
  // Both in the window's coordinates, as the SDK sends them.
  let currentPosition = {x: 0, y: 0, width: 0, height: 0};
  let defaultPosition = null;   // until the SDK sends it, the current position counts

  // An interstitial fills the maximum-size rectangle. Positions for the page are relative to it.
  function toPage({x, y, width, height}) {
    return {x: x - currentPosition.x, y: y - currentPosition.y, width, height};
  }

  function setState(next) {
    if (state === next || state === 'hidden') return;
    state = next;
    emit('stateChange', state);
  }

  function setViewable(next) {
    if (viewable === next || state === 'hidden') return;
    viewable = next;
    emit('viewableChange', viewable);
    exposureMayHaveChanged();
  }

  function setMuted(next) {
    if (isMuted === next) return;
    isMuted = next;
    audioVolume = isMuted ? 0 : 100;
    emit('videoMuted', isMuted);
    emit('audioVolumeChange', audioVolume);
  }

  function setFeatures(supported) {
    features = {__proto__: null};
    for (const feature in supported) features[feature] = supported[feature] === true;
  }

  // The ad fills its view and only the SDK's controls cover it, so either all of it is exposed or
  // nothing. The covered area is not reported.
  function exposure() {
    if (!viewable) return [0, null, null];
    const {width, height} = currentPosition;
    return [100, freeze({x: 0, y: 0, width, height}), null];
  }

  let sentExposure = exposure();

  function exposureMayHaveChanged() {
    const now = exposure();
    if (now[0] === sentExposure[0] && (!viewable || sameSize(now[1], sentExposure[1]))) return;
    sentExposure = now;
    emit('exposureChange', now[0], now[1], now[2]);
  }

  function sameSize(a, b) { return a.width === b.width && a.height === b.height; }

  // The SDK sends positions and sizes one by one. sizeChange fires after all have arrived, so that
  // a listener reads only new values.
  const GEOMETRY_SETTLES_MS = 20;
  let sentSize = currentPosition;
  let isSettling = false;

  function setCurrentPosition(position) {
    currentPosition = position;
    if (isSettling) return;
    isSettling = true;
    later(geometrySettled, GEOMETRY_SETTLES_MS);
  }

  function geometrySettled() {
    isSettling = false;
    if (isReady && !sameSize(currentPosition, sentSize)) {
      sentSize = currentPosition;
      emit('sizeChange', currentPosition.width, currentPosition.height);
    }
    exposureMayHaveChanged();
  }

  // The page ends, with the ad's view or by a navigation.
  function leave() {
    setViewable(false);
    setState('hidden');
  }

  // ---------------------------------------------------------------------------------------------
  // The SDK's calls.

  const bridge = {
    setScreenSize(width, height) { screenSize = {width, height}; },
    setMaxSize(width, height) { maxSize = {width, height}; },
    setDefaultPosition(x, y, width, height) { defaultPosition = {x, y, width, height}; },
    setCurrentPosition(x, y, width, height) { setCurrentPosition({x, y, width, height}); },
    notifySizeChangeEvent(width, height) {
      setCurrentPosition({x: currentPosition.x, y: currentPosition.y, width, height});
    },

    // Ignores {orientationDegree: 0}: the SDK sends a new orientation's geometry as well.
    fireChangeEvent(properties) {
      if ('supports' in properties) setFeatures(properties.supports);
      if ('state' in properties) setState(properties.state);
      if ('viewable' in properties) setViewable(properties.viewable);
      if ('videoMuted' in properties) setMuted(properties.videoMuted);
      if (properties.skipTapped) emit('skipTapped');
    },

    fireReadyEvent() {
      if (isReady || state === 'hidden') return;
      isReady = true;
      sentSize = currentPosition;
      setState('default');
      emit('ready');
    },

    fireErrorEvent(command, message) { emit('error', message, command); },

    // No command waits for the previous one, so there is nothing to do.
    nativeCallComplete() {}
  };

  // ---------------------------------------------------------------------------------------------
  // The creative's calls.

  let clickOpened = false;   // whether the page opened an address during the current click
  let resizeProperties = null;
  let expandSize = null;
  let orientationProperties = {allowOrientationChange: true, forceOrientation: 'none'};

  function open(url) {
    clickOpened = true;
    let address = '';
    try {
      if (url !== undefined && url !== null && url !== '')
        address = new Address(url, document.baseURI).href;
    } catch (_) {
      // Not a valid address.
    }
    if (address) send('mraid://open?url=' + encode(address));
    else fail('open', 'The URL is missing or malformed.');
  }

  const SMALLEST_SIDE = 50;

  function setResizeProperties(properties) {
    const {width, height, offsetX, offsetY, customClosePosition, allowOffscreen} = properties || {};
    if (!(isFinite(width) && isFinite(height) && isFinite(offsetX) && isFinite(offsetY))) {
      fail('setResizeProperties', 'width, height, offsetX and offsetY must be numbers.');
      return;
    }
    if (width < SMALLEST_SIDE || height < SMALLEST_SIDE) {
      fail('setResizeProperties', 'The size must be at least 50 by 50.');
      return;
    }
    resizeProperties = {
      width, height, offsetX, offsetY,
      customClosePosition: customClosePosition || 'top-right',
      allowOffscreen: allowOffscreen !== false
    };
  }

  function getResizeProperties() {
    if (resizeProperties) return {...resizeProperties};
    const {width, height} = currentPosition;
    return {width, height, offsetX: 0, offsetY: 0, customClosePosition: 'top-right',
            allowOffscreen: true};
  }

  // Stored only for getOrientationProperties. The host sets the orientation.
  function setOrientationProperties(properties) {
    const {allowOrientationChange, forceOrientation} = properties || {};
    if (typeof allowOrientationChange === 'boolean')
      orientationProperties.allowOrientationChange = allowOrientationChange;
    if (forceOrientation === 'portrait' || forceOrientation === 'landscape' ||
        forceOrientation === 'none') orientationProperties.forceOrientation = forceOrientation;
  }

  function resize() {
    if (!resizeProperties) {
      fail('resize', 'Call setResizeProperties first.');
      return;
    }
    const {width, height, offsetX, offsetY} = resizeProperties;
    send('mraid://resize?width=' + width + '&height=' + height +
         '&offsetX=' + offsetX + '&offsetY=' + offsetY);
  }

  const mraid = {
    addEventListener,
    removeEventListener,
    getVersion() { return VERSION; },
    getPlacementType() { return 'interstitial'; },
    getState() { return state; },
    isViewable() { return viewable; },
    supports(feature) { return features[feature] === true; },

    getScreenSize() { return {...screenSize}; },
    getMaxSize() { return {...maxSize}; },
    getCurrentPosition() { return toPage(currentPosition); },
    getDefaultPosition() { return toPage(defaultPosition || currentPosition); },
    getCurrentAppOrientation() {
      const orientation = maxSize.width > maxSize.height ? 'landscape' : 'portrait';
      return {orientation, locked: false};
    },
    getOrientationProperties() { return {...orientationProperties}; },
    setOrientationProperties,

    open,
    resize,
    getResizeProperties,
    setResizeProperties,
    // The close control is always the SDK's. An expanded ad is modal.
    getExpandProperties() {
      return {...screenSize, ...expandSize, useCustomClose: false, isModal: true};
    },
    setExpandProperties(properties) {
      const {width, height} = properties || {};
      expandSize = {width: width || screenSize.width, height: height || screenSize.height};
    },
    useCustomClose() {},

    close: unsupported('close'),
    unload: unsupported('unload'),
    expand: unsupported('expand'),
    playVideo: unsupported('playVideo'),
    storePicture: unsupported('storePicture'),
    createCalendarEvent: unsupported('createCalendarEvent'),
    getLocation() {
      fail('getLocation', 'getLocation is not supported.');
      return -1;
    }
  };

  const seconds = function (value) { return isFinite(value) ? value : 0; };
  const kelvara = {
    preloadComplete() { send('kva://preloadComplete'); },
    videoComplete() { send('kva://videoComplete'); },
    videoEvent(duration, current) {
      send('kva://videoEvent?duration=' + seconds(duration) + '&currenttime=' + seconds(current));
    }
  };

  // ---------------------------------------------------------------------------------------------
  // Links that lead out of the ad.

  const OUTWARD = {'http:': true, 'https:': true, 'tel:': true, 'sms:': true, 'mailto:': true};

  function frameNamed(name) {
    const frame = document.getElementsByName(name)[0];
    return frame && frame.localName === 'iframe' ? frame : null;
  }

  // Returns the outward address of a link to `href` in `target`; null if the link does not lead out.
  function outwardAddress(href, target) {
    if (target && frameNamed(target)) return null;
    try {
      const address = new Address(href, document.baseURI);
      return OUTWARD[address.protocol] === true ? address.href : null;
    } catch (_) {
      return null;
    }
  }

  // The SDK blocks a link that the user follows and opens it outside. So the script opens links into
  // frames itself.
  function followIntoFrame(event, href, target) {
    if (!target || !frameNamed(target)) return;
    event.preventDefault();
    openWindow(href, target);
  }

  const RIGHT_BUTTON = 2;

  function linkOf(event) {
    const path = event.composedPath();
    for (let i = 0; i < path.length; i += 1) {
      const {localName} = path[i];
      if ((localName === 'a' || localName === 'area') && path[i].href) return path[i];
    }
    return null;
  }

  function clickBegins() { clickOpened = false; }

  // Runs after the page's listeners, so that the page can cancel the click first.
  function clickEnds(event) {
    const isFollowed = !event.defaultPrevented && event.button !== RIGHT_BUTTON;
    const link = isFollowed ? linkOf(event) : null;
    if (!link) return;
    const href = link.getAttribute('href') || link.href.baseVal || '';
    const target = link.getAttribute('target');
    const address = outwardAddress(href, target);
    if (!address) {
      followIntoFrame(event, link.href, target);
      return;
    }
    event.preventDefault();
    if (!clickOpened) open(address);
  }

  window.open = function (url, target, windowFeatures) {
    const address = outwardAddress(url, target);
    if (!address) return openWindow(url, target, windowFeatures);
    open(address);
    return null;
  };

  // A creative may add a script tag for mraid.js and wait for its load event. The file does not
  // exist and the bridge is already there, so replace the error event by a load event.
  function scriptFailed(event) {
    const script = event.target;
    if (!script || script.localName !== 'script') return;
    if (!/(^|[/])mraid[.]js$/.test(script.getAttribute('src') || '')) return;
    event.stopImmediatePropagation();
    script.dispatchEvent(new Event('load'));
  }

  function listen() {
    window.addEventListener('click', clickBegins, true);
    window.addEventListener('click', clickEnds);
    window.addEventListener('auxclick', clickBegins, true);
    window.addEventListener('auxclick', clickEnds);
    window.addEventListener('error', scriptFailed, true);
    window.addEventListener('pagehide', leave);
  }

  // Rewriting the document removes every listener from the window, and commands need a root
  // element. A new root element ends both.
  listen();
  new MutationObserver(function () {
    listen();
    sendWaiting();
  }).observe(document, {childList: true});

  window.mraid = mraid;
  window.kelvara = kelvara;
  // Not writable: the SDK calls it as long as the page lives.
  defineProperty(window, 'mraidbridge', {value: freeze(bridge), enumerable: true});
})();
