<?php
echo 'id=', $_GET['id'] ?? '', ';len=', strlen(str_repeat('x', 1000 * (int)($_GET['id'] ?? 0)));
