<?php
// The way many applications answer "not found": other headers first.
setcookie('seen', '1');
header('X-Page: late');
header('Status: 403 Forbidden');
echo 'no entry';
