// What the page's code is checked for: eslint's own rules, and those that keep small modules readable.
import js from '@eslint/js';

const BROWSER = ['AbortController', 'AbortSignal', 'Blob', 'FileReader', 'MutationObserver', 'TextDecoderStream', 'URL', 'URLSearchParams',
  'addEventListener', 'clearInterval', 'clearTimeout', 'console', 'document', 'fetch', 'history', 'location', 'performance', 'sessionStorage',
  'setInterval', 'setTimeout', 'window'];
const readable = (names) => Object.fromEntries(names.map((name) => [name, 'readonly']));

export default [
  js.configs.recommended,
  {
    files: ['services/NodeGateway/page/js/*.js', 'tests/page/*.mjs'],
    languageOptions: { ecmaVersion: 2023, sourceType: 'module', globals: readable([...BROWSER, 'process']) },
    rules: {
      'no-var': 'error', 'prefer-const': 'error', eqeqeq: 'error', curly: 'error', 'no-eval': 'error', 'no-implied-eval': 'error',
      'no-new-func': 'error', 'no-shadow': 'error', 'no-dupe-keys': 'error', 'no-unused-vars': 'error', 'max-lines': ['error', 300],
      'max-lines-per-function': ['error', 60],
    },
  },
];
