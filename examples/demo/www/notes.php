<?php
// The run wrapper needs the file's full path, and only the script knows
// where the demo lies, so the link to /run.ebd is built here.
function h($s) { return htmlspecialchars((string)$s, ENT_QUOTES, 'UTF-8'); }
$file = __DIR__ . DIRECTORY_SEPARATOR . 'notes.txt';
$run = '/run.ebd?file=' . rawurlencode($file) . '&page=' . rawurlencode('/notes.php');
?>
<!doctype html>
<html lang="en">
<head><meta charset="utf-8"><title>Open a file - Lumetta demo</title><link rel="stylesheet" href="style.css"></head>
<body>
<header><img src="img/logo.svg" alt=""><div><h1>Open a local file</h1><p>Through the player's run wrapper</p></div></header>
<main style="grid-template-columns: 1fr">
  <section class="card">
    <p>The file <code><?= h($file) ?></code> opens in the desktop's usual
    program for text files; the page then comes back here.</p>
    <a class="button" id="run" href="<?= h($run) ?>">Open notes.txt</a>
    <a class="button" href="/">Back</a>
  </section>
</main>
</body>
</html>
