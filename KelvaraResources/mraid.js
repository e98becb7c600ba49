/*
 * The page side of Kelvara's MRAID bridge.
 *
 * The SDK injects this script into the ad's top frame at document start, before any script of
 * the ad, so a creative may use `mraid` at parse time and needs no script tag for it.
 *
 *   window.mraid        What the creative calls: MRAID 3.0 with 2.0's methods, for an interstitial.
 *                       The bridge carries open and resize; orientation properties are kept, to
 *                       no effect. Every other action ends in an `error` event that names it, and
 *                       changes nothing.
 *   window.MRAID_ENV    Who hosts the ad. It never holds an identifier.
 *   window.mraidbridge  What the SDK calls. Not for creatives.
 *   window.kelvara      What Kelvara's own templates tell the SDK about their video:
 *                         preloadComplete()               the creative can be shown
 *                         videoEvent(duration, current)   progress, in seconds
 *                         videoComplete()                 the video has ended
 *
 * Two events beyond the standard's, for mraid.addEventListener:
 *   videoMuted(isMuted)   the user switched the sound with the SDK's button
 *   skipTapped()          the user tapped the SDK's skip button; the creative decides what it means
 *
 * Leaving the ad: a link that is followed (or window.open) to a web, tel:, sms: or mailto: address
 * becomes mraid.open, so that the ad is never replaced inside its own view. A page that cancels
 * the click, or opens an address of its own while handling it, has had its say. Links into one of
 * the page's own frames, within the page, or to any other scheme are left alone. The SDK opens
 * nothing that the user did not tap.
 *
 * Events reach their listeners in the order in which they arose, each only after the listeners of
 * the one before have returned. What a page's own call brings about comes after that call returned.
 * A creative that comes late asks getState(): `ready` and stateChange are not repeated for it.
 *
 * Commands are navigations of hidden iframes, mraid: and kva:, which the SDK catches and refuses.
 * A page with a Content-Security-Policy must allow both in frame-src.
 */
(function () {
  'use strict';

  // A page that fetches this file by a script tag of its own, or writes its document anew, gets
  // here a second time. The first bridge knows the state, so it stays.
  if (window.mraidbridge) return;

  // Taken before the page can replace them. The rest of the script uses no method of Array, so
  // a page that alters Array.prototype does not alter who hears what.
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

  // Setting the page's location twice in one turn delivers only the second, so every command has
  // an iframe of its own. A page may hold a thousand frames; more commands than this at once wait.
  const FRAMES_AT_ONCE = 200;
  let commands = [];
  let nextCommand = 0;
  let framesInUse = 0;

  function send(url) {
    commands[commands.length] = url;
    sendWaiting();
  }

  function sendWaiting() {
    if (!document.documentElement) return;   // until there is one, see below
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

  // One list of {listener, removed, owed} per event. A list is replaced, never altered, so
  // a delivery under way keeps the list it began with; `removed` keeps it from calling one that
  // another listener has just taken out.
  const listeners = {
    __proto__: null,
    ready: [], error: [], stateChange: [], sizeChange: [], viewableChange: [],
    exposureChange: [], audioVolumeChange: [], videoMuted: [], skipTapped: []
  };

  // Events whose present value a new listener is told once, soon after it registered.
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
      // The page's console is its own; one that throws must not stop the delivery.
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

  // Tells the page that `action` came to nothing. A task of its own: a creative may well answer
  // an error with the call that failed, and that must not hold the page up for ever.
  function fail(action, message) {
    later(function () { emit('error', message, action); }, 0);
  }

  function notCarried(action) {
    return function () { fail(action, action + ' is not supported.'); };
  }

  // ---------------------------------------------------------------------------------------------
  // State: changed by the SDK alone, and always before the page hears of it.

  let state = 'loading';
  let isReady = false;
  let viewable = false;
  let isMuted = null;       // null until the SDK tells
  let audioVolume = null;   // percent; null while unknown
  let features = {__proto__: null, inlineVideo: true};   // no other until the SDK sends them
  let screenSize = {width: 0, height: 0};
  let maxSize = {width: 0, height: 0};
  // Both as the SDK sends them: in the window.
  let currentPosition = {x: 0, y: 0, width: 0, height: 0};
  let defaultPosition = null;   // until the SDK sends it, where the ad is

  // An interstitial fills the maximum-size rectangle, to which pages' positions are relative.
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

  // The ad fills its view and nothing but the SDK's own controls lies over it: all of it is
  // exposed, or nothing is. What covers it is not reported.
  function exposure() {
    if (!viewable) return [0, null, null];
    const {width, height} = currentPosition;
    return [100, freeze({x: 0, y: 0, width, height}), null];
  }

  let toldExposure = exposure();

  function exposureMayHaveChanged() {
    const now = exposure();
    if (now[0] === toldExposure[0] && (!viewable || sameSize(now[1], toldExposure[1]))) return;
    toldExposure = now;
    emit('exposureChange', now[0], now[1], now[2]);
  }

  function sameSize(a, b) { return a.width === b.width && a.height === b.height; }

  // The SDK tells positions and sizes one by one. The page hears of a new size when all of them
  // are in, so that a listener that asks for the others gets the new ones.
  const GEOMETRY_SETTLES_MS = 20;
  let toldSize = currentPosition;
  let isSettling = false;

  function setCurrentPosition(position) {
    currentPosition = position;
    if (isSettling) return;
    isSettling = true;
    later(geometrySettled, GEOMETRY_SETTLES_MS);
  }

  function geometrySettled() {
    isSettling = false;
    if (isReady && !sameSize(currentPosition, toldSize)) {
      toldSize = currentPosition;
      emit('sizeChange', currentPosition.width, currentPosition.height);
    }
    exposureMayHaveChanged();
  }

  // The page goes away: with the ad's view, or because it leads somewhere else.
  function leave() {
    setViewable(false);
    setState('hidden');
  }

  // ---------------------------------------------------------------------------------------------
  // What the SDK calls.

  const bridge = {
    setScreenSize(width, height) { screenSize = {width, height}; },
    setMaxSize(width, height) { maxSize = {width, height}; },
    setDefaultPosition(x, y, width, height) { defaultPosition = {x, y, width, height}; },
    setCurrentPosition(x, y, width, height) { setCurrentPosition({x, y, width, height}); },
    notifySizeChangeEvent(width, height) {
      setCurrentPosition({x: currentPosition.x, y: currentPosition.y, width, height});
    },

    // An orientation is told along with the rest ({orientationDegree: 0}); the page learns what it
    // means from the geometry, so there is nothing to do for it.
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
      toldSize = currentPosition;
      setState('default');
      emit('ready');
    },

    fireErrorEvent(command, message) { emit('error', message, command); },

    // No command waits for the one before, so there is nothing to do when one is complete.
    nativeCallComplete() {}
  };

  // ---------------------------------------------------------------------------------------------
  // What the creative calls.

  let clickOpened = false;   // an address was opened while a click was being handled
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
      // A text that a link could not lead to either.
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

  // Kept for the page to read again. The host decides how the ad is turned.
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
    // The close control is always the SDK's, and an expanded ad would be modal.
    getExpandProperties() {
      return {...screenSize, ...expandSize, useCustomClose: false, isModal: true};
    },
    setExpandProperties(properties) {
      const {width, height} = properties || {};
      expandSize = {width: width || screenSize.width, height: height || screenSize.height};
    },
    useCustomClose() {},

    close: notCarried('close'),
    unload: notCarried('unload'),
    expand: notCarried('expand'),
    playVideo: notCarried('playVideo'),
    storePicture: notCarried('storePicture'),
    createCalendarEvent: notCarried('createCalendarEvent'),
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

  // The address that following `href` into `target` leads out to; null when the page stays.
  function outwardAddress(href, target) {
    if (target && frameNamed(target)) return null;
    try {
      const address = new Address(href, document.baseURI);
      return OUTWARD[address.protocol] === true ? address.href : null;
    } catch (_) {
      return null;
    }
  }

  // The SDK takes a link that the user follows for one that leads out, unless the page follows it.
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

  // Last to hear of a click, so that the page can cancel it first.
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

  // A creative may add a tag for mraid.js and wait for it to load. There is no such file beside
  // the ad, and nothing left to load: the tag hears that it is done.
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

  // A page that writes its document anew takes every listener off the window, and one without
  // a root element has no place for commands: both end when there is a new root.
  listen();
  new MutationObserver(function () {
    listen();
    sendWaiting();
  }).observe(document, {childList: true});

  window.mraid = mraid;
  window.kelvara = kelvara;
  // The SDK calls this name for as long as the page lives, whatever the page does.
  defineProperty(window, 'mraidbridge', {value: freeze(bridge), enumerable: true});
})();
