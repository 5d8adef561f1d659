// Checks that every resource of the page arrived and writes one line with
// the outcome of each check into #result.
(function () {
  var checks = {};
  var pending = 0;

  function report() {
    var names = Object.keys(checks).sort();
    var line = 'RESULT';
    for (var i = 0; i < names.length; i++) line += ' ' + names[i] + '=' + checks[names[i]];
    document.getElementById('result').textContent = line;
  }
  function start(name) { pending++; checks[name] = 'pending'; }
  function done(name, ok) {
    checks[name] = ok ? 'ok' : 'bad';
    if (--pending === 0) report();
  }
  function image(id) {
    start(id);
    var img = document.getElementById(id);
    var finish = function () { done(id, img.naturalWidth > 0); };
    if (img.complete) setTimeout(finish, 0); else { img.onload = finish; img.onerror = finish; }
  }

  start('css');
  start('js');
  image('png');
  image('svg');
  start('json');
  start('sub');

  window.addEventListener('load', function () {
    var colour = getComputedStyle(document.getElementById('probe')).color;
    done('css', colour === 'rgb(1, 2, 3)');
    done('js', window.libValue === 42);
    var frame = document.getElementById('sub');
    var text = frame.contentDocument ? frame.contentDocument.body.textContent : '';
    done('sub', text.indexOf('sub page') >= 0);
  });
  fetch('data/info.json')
    .then(function (r) { return r.json(); })
    .then(function (j) { done('json', j.answer === 'forty-two'); })
    .catch(function () { done('json', false); });
})();
