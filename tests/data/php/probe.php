<?php
// Prints what a script learns about its request; "(unset)" for an absent variable.
header('Content-Type: text/plain');
$keys = ['REQUEST_METHOD', 'REQUEST_URI', 'SCRIPT_NAME', 'PATH_INFO', 'PATH_TRANSLATED', 'PHP_SELF',
         'CONTENT_TYPE', 'CONTENT_LENGTH', 'HTTPS', 'HTTP_REFERER', 'HTTP_AUTHORIZATION',
         'HTTP_X_REQUESTED_WITH', 'HTTP_ORIGIN', 'HTTP_PROXY'];
foreach ($keys as $k) echo $k, '=', isset($_SERVER[$k]) ? $_SERVER[$k] : '(unset)', "\n";
echo 'query=', strlen($_SERVER['QUERY_STRING']), ' cookie=', strlen($_SERVER['HTTP_COOKIE'] ?? ''), "\n";
echo 'post=', json_encode($_POST), ' files=', implode(',', array_keys($_FILES)), "\n";
echo 'input=', file_get_contents('php://input'), "\n";
