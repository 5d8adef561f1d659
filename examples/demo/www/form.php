<?php
// Echoes what the form sent, including an uploaded file's name, size and
// the first bytes of its text.
function h($s) { return htmlspecialchars((string)$s, ENT_QUOTES, 'UTF-8'); }
$name = $_POST['name'] ?? '';
$file = $_FILES['attachment'] ?? null;
?>
<!doctype html>
<html lang="en">
<head><meta charset="utf-8"><title>Form - Lumetta demo</title><link rel="stylesheet" href="style.css"></head>
<body>
<header><img src="img/logo.svg" alt=""><div><h1>PHP form</h1><p>PHP <?= h(PHP_VERSION) ?> through the CGI gateway</p></div></header>
<main style="grid-template-columns: 1fr">
  <section class="card">
    <form method="post" action="form.php" enctype="multipart/form-data">
      <label>Your name <input type="text" name="name" value="<?= h($name) ?>"></label>
      <label>A file to upload <input type="file" name="attachment"></label>
      <button type="submit">Send</button>
    </form>
  </section>
<?php if ($_SERVER['REQUEST_METHOD'] === 'POST'): ?>
  <section class="card result" id="result">
    <p>Hello, <strong id="name"><?= h($name !== '' ? $name : 'stranger') ?></strong>.</p>
<?php if ($file && $file['error'] === UPLOAD_ERR_OK): ?>
    <p>Received <strong id="upload-name"><?= h($file['name']) ?></strong>,
       <span id="upload-size"><?= (int)$file['size'] ?></span> bytes,
       md5 <code id="upload-md5"><?= h(md5_file($file['tmp_name'])) ?></code>.</p>
<?php elseif ($file && $file['error'] !== UPLOAD_ERR_NO_FILE): ?>
    <p>The upload failed (error <?= (int)$file['error'] ?>).</p>
<?php endif; ?>
  </section>
<?php endif; ?>
  <p><a class="button" href="/">Back</a></p>
</main>
</body>
</html>
