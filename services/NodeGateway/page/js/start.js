// A part of the page that could not be had, as when the instrument restarts or the network changes just then, would leave it
// empty for ever: the browser asks for a module once. This comes first, and has the whole page loaded anew.
addEventListener('error', (event) => event.target.tagName === 'SCRIPT' && setTimeout(() => location.reload(), 1000), true);
