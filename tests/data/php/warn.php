<?php
$none = [];
echo 'before;';
echo $none['missing-key'];
echo 'after';
