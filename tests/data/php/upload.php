<?php
// Shows what arrived of the upload so the test can compare it byte for byte.
$f = $_FILES['doc'] ?? null;
if (!$f || $f['error'] !== UPLOAD_ERR_OK) {
  echo "upload error ", $f ? $f['error'] : 'none';
  exit;
}
echo $f['name'], "\n", $f['size'], "\n", $_POST['note'] ?? '', "\n", file_get_contents($f['tmp_name']);
