// All that the page says. Another language is another such file; names, versions and reasons come from the instrument.

const count = (number, one, many) => (number === 1 ? one : many.replace('%', number));

export const texts = {
  title: 'Instrument',
  navigation: 'Parts of this page',
  tabs: { '#/': 'Update', '#/accessory': 'Accessory', '#/history': 'History', '#/log': 'Log' },
  links: { connecting: 'connecting', live: 'connected', lost: 'no answer', locked: 'locked' },
  noAnswer: 'The instrument does not answer.',
  lost: (seconds) => `The instrument has not answered for ${seconds} s. What is shown is what it told last; this page goes on trying.`,
  roles: { look: 'You may look, and change nothing.', operate: '', administer: '' },

  locked: 'A token is needed',
  lockedWhy: 'Over the network the instrument asks who you are. Ask whoever looks after it for a token, or use the command “arborctl ui” on the instrument.',
  token: 'Token',
  unlock: 'Continue',

  instrument: 'Instrument',
  model: 'Model', serial: 'Serial number', board: 'Board', runs: 'Runs', slot: 'Slot', startsNext: 'Starts next',
  unknown: 'not known',
  inSlot: (version, slot) => `${version}${slot ? `, slot ${slot}` : ''}`,
  trial: 'Trial', confirmed: 'confirmed', onTrial: (left) => `on trial${left ? `, ${left} starts left` : ''}`,
  policyOff: 'Packages of everybody are accepted: no trusted signers are set.',
  developerMode: 'Developer mode is on.',

  now: 'What happens now',
  idle: 'Nothing is under way.',
  starting: (what) => `Starting: ${what}`,
  kinds: {
    Check: 'Check', Scan: 'Look at', Install: 'Install', Build: 'Build', Transfer: 'Carry over',
    RemoteInstall: 'Install on accessory', Upload: 'Upload', Trust: 'Trust document',
  },
  states: { Queued: 'waits', Running: 'under way', Succeeded: 'done', Failed: 'failed', Cancelled: 'cancelled', Lost: 'end not known', Open: 'under way or waiting' },
  stayOn: 'Do not switch off.',
  cancel: 'Cancel',
  cancelling: 'Cancelling…',
  away: 'The instrument does not answer at present. The installer goes on by itself.',
  steps: 'Steps',
  stepNames: { order: 'Order taken', write: 'Write the other slot', carry: 'Carry over, install', restart: 'Restart', proof: 'New version runs' },
  stepStates: { done: 'done', now: 'now', todo: 'to come', bad: 'failed' },
  installed: (version) => `${version} is installed and starts next.`,
  installedMore: 'The instrument restarts by itself, unless the order said otherwise: then at its next restart.',
  restarting: (version) => `Restarting into ${version}.`,
  waiting: (usual, since) => `Waiting for the instrument${usual ? ` (about ${usual})` : ''}: ${since} s so far.`,
  proven: (version) => `${version} runs. The restart is over.`,
  proof: (before, now) => `Proof: it was installed in boot ${before}; this is boot ${now}.`,
  returned: (version, runs) => `${runs} runs, and not ${version}.`,
  returnedWhy: 'The instrument has restarted since, and came back with another version. It is as safe as before; the log and the history say more.',
  failed: (version) => `Installing ${version} did not work.`,
  stays: (version) => `${version} stays, unchanged.`,
  cancelled: (version) => `Installing ${version} was cancelled.`,
  lastOutcome: 'Last install',
  never: 'Nothing has been installed yet, as far as the journal goes. What an install does:',

  offers: 'What can be installed',
  noOffers: 'Nothing. Plug a stick in, or drop a package file here.',
  stillChecking: 'What is there is being checked.',
  checking: (where, what) => `${where}: ${what}`,
  relations: { newer: 'newer', same: 'same', older: 'older' },
  from: (place) => (place === 'upload' ? 'uploaded' : `from ${place}`),
  alsoFrom: (places) => `also ${places}`,
  signedBy: (who) => `signed by ${who}`,
  notSigned: 'signer not told',
  install: 'Install',
  installThis: (version) => `Install ${version}`,
  remove: 'Remove',
  removeThis: (file) => `Remove ${file}`,

  refused: 'Refused',
  whatToDo: 'What to do:',
  advice: {
    ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE: 'copy the file to the stick again. If that does not help, ask for a package for this board, from somebody whom this instrument trusts.',
    ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED: 'bring a newer version; this instrument does not go back.',
    other: 'put the stick in again, or bring another file.',
  },
  errorCodes: {
    ERRCODE_BUSY: 'Another install is under way; wait for its end.',
    ERRCODE_NOT_FOUND: 'The package is not there any more. Is the stick still in?',
    ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED: 'This version is older than the one that runs.',
    ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE: 'The package is not good, or not there any more.',
    ERRCODE_DEVICE_NOT_CONNECTED: 'The accessory is not connected.',
    ERRCODE_SYSUPDATE_IN_SHUTDOWN: 'The instrument is shutting down.',
  },

  confirmInstall: (version) => `Install ${version}?`,
  willWrite: (slot) => `${slot ? `Slot ${slot}` : 'The other slot'} is written anew; what runs now goes on running meanwhile.`,
  willRestart: (usual) => `At the end the instrument restarts${usual ? `: about ${usual}, as the last time` : ''}. No measurement is possible until it is back.`,
  willTake: (time) => `The last install took ${time}.`,
  neverTook: 'How long an install takes here is not known yet: this would be the first.',
  willReturn: (version) => `If the new version does not start, ${version} is still there, in its own slot.`,
  close: 'Not now',
  ok: 'Close',

  upload: 'Bring a package from this computer',
  uploadHint: 'Drop a package file here, or choose one.',
  choose: 'Choose a file',
  uploading: (name, percent) => `${name}: ${percent} % carried over`,
  uploaded: (name) => `${name} is here; the instrument checks it.`,
  uploadGood: (name, version) => `${name} is good: version ${version} can be installed.`,
  uploadBad: (name, reason) => `${name} was refused: ${reason}`,
  uploadFailed: (name, reason) => `${name} could not be brought: ${reason}`,
  uploadEmpty: 'The file is empty.',
  progress: 'Progress',

  accessory: 'Devices beside this one',
  noPeers: 'No other device is paired with this one.',
  noLink: 'This instrument has no link to other devices in its graph.',
  connected: 'connected', notConnected: 'not connected',
  version: 'Version',
  fits: 'Its software fits.', fitsNot: (version) => `Its software does not fit: ${version} is needed.`, fitsUnknown: 'Whether its software fits is not known.',
  build: 'Build package', transfer: 'Carry over', remoteInstall: 'Install there',
  built: (version) => `A package of ${version} for its board is there.`,
  notBuilt: 'There is no package for its board yet.',
  buildWhat: (version, board) => `${version} for ${board}`,
  confirmRemote: (name, version) => `Install ${version} on ${name}?`,
  willRemote: 'The package is carried over, installed into the other slot there, and the accessory restarts.',
  proofRemote: (name, version) => `${name} is connected again and runs ${version}.`,
  waitRemote: (name) => `Waiting for ${name} to come back.`,

  pairing: 'Pairing',
  ownKey: 'Key of this device',
  turnedAway: 'Turned away, since its key is not pinned:',
  letIn: 'Let in',
  noneTurnedAway: 'Nobody was turned away lately.',
  confirmPair: 'Compare both keys',
  compare: 'Look at the other device: it has to show exactly the second key as its own, and the first one as the one it lets in.',
  otherKey: 'Key of the other device',
  name: 'Name',
  pin: 'They are the same: let it in',
  confirmUnpair: (name) => `Remove ${name}?`,
  willUnpair: 'It is cut off at once, and let in no longer.',

  history: 'History',
  all: 'All',
  filterKind: 'What', filterState: 'How it ended',
  noHistory: 'Nothing that fits.',
  noJournal: 'This instrument keeps no journal.',
  more: 'Earlier ones',
  took: (time) => `took ${time}`,
  askedBy: 'Asked by', itself: 'the device itself', began: 'Began', ended: 'Ended', node: 'Done by', boot: 'Boot', id: 'Id',
  parts: 'Its parts', lines: 'Its log lines', noLines: 'None is in memory any more.',

  log: 'Log',
  level: 'From level', levels: { 1: 'detail', 2: 'information', 3: 'warning', 4: 'failure' },
  search: 'Search',
  liveOn: 'Live', download: 'Download',
  logCount: (shown, all) => `${shown} of ${all} lines`,

  bytes: (number) => {
    if (number === null || number === undefined) {
      return '';
    }
    const units = ['bytes', 'KiB', 'MiB', 'GiB'];
    const power = Math.min(3, Math.floor(Math.log2(Math.max(number, 1)) / 10));
    const shown = number / 1024 ** power;
    return `${power && shown < 100 ? shown.toFixed(1) : Math.round(shown)} ${units[power]}`;
  },
  duration: (ms) => {
    const seconds = Math.round(ms / 1000);
    return ms < 950 ? 'less than 1 s' : seconds < 90 ? `${seconds} s` : count(Math.round(seconds / 60), '1 minute', '% minutes');
  },
  // The same for everybody, by this browser's clock and zone.
  time: (ms) => (ms ? new Date(ms).toLocaleString('sv-SE') : ''),
};
