<?php
$dir = __DIR__ . '/sessions';
if (!is_dir($dir)) mkdir($dir);
session_save_path($dir);
session_start();
$_SESSION['n'] = ($_SESSION['n'] ?? 0) + 1;
setcookie('flavour', 'oat');
echo 'n=', $_SESSION['n'], ';cookie=', $_COOKIE['flavour'] ?? '';
